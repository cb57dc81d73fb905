#!/usr/bin/env python3
"""Writes mail-sample.pcap: three short mail conversations made up for the
project's examples and tests, one per protocol, over Ethernet and IPv4.

  SMTP   alice@example.org -> bob@example.com, one attachment (report.txt)
  POP3   carol retrieves one message from dave@example.net (UTF-8 subject)
  IMAP4  erin fetches one message from frank@example.com with UID FETCH

Addresses come from the documentation ranges (192.0.2.0/24, 198.51.100.0/24)
and the example domains. The POP3 server answers RETR after 350 ms, so the
capture also shows one slow-response diagnosis with the default 200 ms
threshold. Only the standard library is used; the output is the same on
every run.

Usage: python3 samples/make_sample.py [OUTPUT]   (default: samples/mail-sample.pcap)
"""
import struct
import sys
from pathlib import Path

START_US = 1_700_000_000 * 1_000_000  # 2023-11-14 22:13:20 UTC
MSS = 1460


def checksum(data: bytes) -> int:
    if len(data) % 2:
        data += b"\0"
    total = sum(struct.unpack(f"!{len(data) // 2}H", data))
    while total >> 16:
        total = (total & 0xFFFF) + (total >> 16)
    return ~total & 0xFFFF


def ip4(text: str) -> bytes:
    return bytes(int(part) for part in text.split("."))


class Writer:
    def __init__(self):
        self.frames = []  # (time_us, bytes)

    def add(self, time_us, frame):
        self.frames.append((time_us, frame))

    def save(self, path):
        out = bytearray(struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1))
        for time_us, frame in sorted(self.frames, key=lambda f: f[0]):
            out += struct.pack("<IIII", time_us // 1_000_000, time_us % 1_000_000, len(frame), len(frame))
            out += frame
        Path(path).write_bytes(out)


class Conversation:
    """One TCP connection; times advance with every step."""

    def __init__(self, writer, client, server, client_port, server_port, start_us, client_mac, server_mac):
        self.writer = writer
        self.ends = {
            "c": (ip4(client), client_port, client_mac),
            "s": (ip4(server), server_port, server_mac),
        }
        self.seq = {"c": 1000, "s": 5000}
        self.time = start_us
        self.ip_id = 1

    def frame(self, side, flags, payload=b""):
        other = "s" if side == "c" else "c"
        src, sport, smac = self.ends[side]
        dst, dport, dmac = self.ends[other]
        ack = self.seq[other] if flags & 0x10 else 0
        tcp = struct.pack("!HHIIBBHHH", sport, dport, self.seq[side], ack, 5 << 4, flags, 65535, 0, 0)
        pseudo = src + dst + struct.pack("!BBH", 0, 6, len(tcp) + len(payload))
        tcp = tcp[:16] + struct.pack("!H", checksum(pseudo + tcp + payload)) + tcp[18:]
        total = 20 + len(tcp) + len(payload)
        ip = struct.pack("!BBHHHBBH4s4s", 0x45, 0, total, self.ip_id, 0x4000, 64, 6, 0, src, dst)
        ip = ip[:10] + struct.pack("!H", checksum(ip)) + ip[12:]
        self.ip_id += 1
        ether = dmac + smac + b"\x08\x00"
        self.writer.add(self.time, ether + ip + tcp + payload)
        self.seq[side] = (self.seq[side] + len(payload) + (1 if flags & 0x03 else 0)) & 0xFFFFFFFF

    def wait(self, ms):
        self.time += int(ms * 1000)

    def open(self):
        self.frame("c", 0x02)
        self.wait(1)
        self.frame("s", 0x12)
        self.wait(1)
        self.frame("c", 0x10)

    def send(self, side, data: bytes, ms_before=5):
        self.wait(ms_before)
        for offset in range(0, len(data), MSS):
            self.frame(side, 0x18, data[offset : offset + MSS])
            self.wait(0.2)
        self.wait(1)
        self.frame("s" if side == "c" else "c", 0x10)  # the other side's ACK

    def close(self):
        self.wait(2)
        self.frame("c", 0x11)
        self.wait(1)
        self.frame("s", 0x11)
        self.wait(1)
        self.frame("c", 0x10)


def crlf(text: str) -> bytes:
    return text.replace("\n", "\r\n").encode("utf-8")


SMTP_MESSAGE = crlf(
    """From: "Alice Example" <alice@example.org>
To: Bob <bob@example.com>
Subject: Quarterly report
Date: Tue, 14 Nov 2023 22:13:20 +0000
X-Mailer: Pelka Sample Mailer 1.0
MIME-Version: 1.0
Content-Type: multipart/mixed; boundary="sample-boundary"

--sample-boundary
Content-Type: text/plain; charset=us-ascii

Hello Bob,

the report for the quarter is attached.

Alice
--sample-boundary
Content-Type: text/plain; name="report.txt"
Content-Disposition: attachment; filename="report.txt"
Content-Transfer-Encoding: base64

UXVhcnRlcmx5IHJlcG9ydDogYWxsIGdvb2QuCg==
--sample-boundary--
"""
)

POP3_MESSAGE = crlf(
    """From: Dave <dave@example.net>
To: Carol <carol@example.com>
Subject: =?UTF-8?B?5LiL5ZGo5LqU5byA5Lya?=
Date: Tue, 14 Nov 2023 21:00:00 +0000
MIME-Version: 1.0
Content-Type: text/plain; charset=utf-8

Carol, the meeting moves to Friday.
"""
)

IMAP_MESSAGE = crlf(
    """From: Frank <frank@example.com>
To: Erin <erin@example.org>
Subject: Lunch on Thursday?
Date: Tue, 14 Nov 2023 20:30:00 +0000
MIME-Version: 1.0
Content-Type: text/plain; charset=us-ascii

Erin, are you free for lunch on Thursday?
"""
)


def smtp(writer):
    c = Conversation(writer, "192.0.2.10", "198.51.100.25", 40001, 25, START_US,
                     bytes.fromhex("020000000a01"), bytes.fromhex("020000001901"))
    c.open()
    c.send("s", b"220 mail.example.com ESMTP ready\r\n")
    c.send("c", b"EHLO client.example.org\r\n")
    c.send("s", b"250-mail.example.com\r\n250 8BITMIME\r\n")
    c.send("c", b"MAIL FROM:<alice@example.org>\r\n")
    c.send("s", b"250 2.1.0 Ok\r\n")
    c.send("c", b"RCPT TO:<bob@example.com>\r\n")
    c.send("s", b"250 2.1.5 Ok\r\n")
    c.send("c", b"DATA\r\n")
    c.send("s", b"354 End data with <CR><LF>.<CR><LF>\r\n")
    c.send("c", SMTP_MESSAGE)
    c.send("c", b".\r\n", ms_before=1)
    c.send("s", b"250 2.0.0 Ok: queued\r\n")
    c.send("c", b"QUIT\r\n")
    c.send("s", b"221 2.0.0 Bye\r\n")
    c.close()


def pop3(writer):
    c = Conversation(writer, "192.0.2.20", "198.51.100.110", 40002, 110, START_US + 2_000_000,
                     bytes.fromhex("020000001401"), bytes.fromhex("020000006e01"))
    c.open()
    c.send("s", b"+OK POP3 server ready\r\n")
    c.send("c", b"USER carol\r\n")
    c.send("s", b"+OK\r\n")
    c.send("c", b"PASS sample-password\r\n")
    c.send("s", b"+OK 1 message\r\n")
    c.send("c", b"RETR 1\r\n")
    c.send("s", b"+OK %d octets\r\n" % len(POP3_MESSAGE) + POP3_MESSAGE + b".\r\n", ms_before=350)
    c.send("c", b"QUIT\r\n")
    c.send("s", b"+OK bye\r\n")
    c.close()


def imap(writer):
    c = Conversation(writer, "192.0.2.30", "198.51.100.143", 40003, 143, START_US + 4_000_000,
                     bytes.fromhex("020000001e01"), bytes.fromhex("020000008f01"))
    c.open()
    c.send("s", b"* OK IMAP4rev1 server ready\r\n")
    c.send("c", b"A1 LOGIN erin sample-password\r\n")
    c.send("s", b"A1 OK LOGIN completed\r\n")
    c.send("c", b"A2 SELECT INBOX\r\n")
    c.send("s", b"* 1 EXISTS\r\nA2 OK [READ-WRITE] SELECT completed\r\n")
    c.send("c", b"A3 UID FETCH 1 (BODY.PEEK[])\r\n")
    c.send("s", b"* 1 FETCH (UID 1 BODY[] {%d}\r\n" % len(IMAP_MESSAGE) + IMAP_MESSAGE
           + b")\r\nA3 OK UID FETCH completed\r\n")
    c.send("c", b"A4 LOGOUT\r\n")
    c.send("s", b"* BYE\r\nA4 OK LOGOUT completed\r\n")
    c.close()


def main():
    output = sys.argv[1] if len(sys.argv) > 1 else str(Path(__file__).with_name("mail-sample.pcap"))
    writer = Writer()
    smtp(writer)
    pop3(writer)
    imap(writer)
    writer.save(output)


if __name__ == "__main__":
    main()
