// The tables of emails.sqlite (capture/RunDatabase.h). The README's
// "Database" section documents them for users; change both together, and
// raise kRunDatabaseVersion whenever a table or column changes.
//
// Columns named after the keys of the JSON files hold the same values; a
// key that is absent from a JSON object is NULL. The messages table is made
// with the keys the module is known to declare; a key it declares beyond
// them becomes one more column when the first record comes.
#pragma once

#include <cstdint>

namespace pelka {

inline constexpr uint32_t kRunDatabaseVersion = 3;

inline constexpr const char* kRunDatabaseTables = R"sql(
CREATE TABLE run (
  started TEXT, ended TEXT, started_unix INTEGER, ended_unix INTEGER,
  command_line TEXT, captures TEXT, options TEXT,
  packets INTEGER, bytes INTEGER, messages INTEGER, entries INTEGER,
  diagnosis_reports INTEGER, copies INTEGER, connections INTEGER, interrupted INTEGER,
  kernel_drops INTEGER);
CREATE TABLE connections (
  id INTEGER PRIMARY KEY, protocol TEXT, client TEXT, server TEXT,
  first_time INTEGER, last_time INTEGER,
  client_packets INTEGER, client_bytes INTEGER, server_packets INTEGER, server_bytes INTEGER,
  records INTEGER, ended TEXT,
  replies_under_10ms INTEGER, replies_under_100ms INTEGER, replies_under_1s INTEGER,
  replies_under_10s INTEGER, replies_10s_or_more INTEGER);
CREATE TABLE messages (
  id INTEGER PRIMARY KEY,
  time_unix INTEGER, sender_domain TEXT, receiver_domain TEXT, connection_id INTEGER,
  email_number INTEGER, timestamp TEXT, protocol TEXT,
  src_mac TEXT, src_ip4 TEXT, src_port INTEGER, dst_mac TEXT, dst_ip4 TEXT, dst_port INTEGER,
  email_server TEXT, email_client TEXT, email_sender TEXT, email_sender_email TEXT,
  email_receiver TEXT, email_receive_email TEXT, email_cc TEXT, email_subject TEXT,
  email_sent_time TEXT, email_emailclient TEXT, email_account TEXT, email_attachment TEXT,
  email_filesize INTEGER, email_duration REAL, email_averagespeed REAL,
  email_file_path TEXT, protocol_path TEXT, "group" TEXT);
CREATE TABLE entries (
  id INTEGER PRIMARY KEY, time_unix INTEGER, time TEXT, kind TEXT, summary TEXT, "group" TEXT);
CREATE TABLE diagnosis (
  id INTEGER PRIMARY KEY, event TEXT, title TEXT, text TEXT, code1 INTEGER, code2 INTEGER,
  packet INTEGER, time INTEGER, related_packet INTEGER, client TEXT, server TEXT);
CREATE TABLE notices (
  id INTEGER PRIMARY KEY, time INTEGER, client TEXT, server TEXT, protocol TEXT, packet INTEGER,
  kind TEXT, text TEXT);
CREATE TABLE attachments (
  id INTEGER PRIMARY KEY, email_number INTEGER, part INTEGER, file_name TEXT, declared_type TEXT,
  detected_type TEXT, size INTEGER, md5 TEXT, sha1 TEXT, sha256 TEXT, type_mismatch INTEGER,
  ioc_match INTEGER, stored_path TEXT);
CREATE TABLE statistics (category TEXT, item TEXT, counter TEXT, value INTEGER);
)sql";

// Made once the rows are in when a run reads files (one sort instead of
// keeping each index in order row by row), at the start for a live run, whose
// database is queried while it grows.
inline constexpr const char* kRunDatabaseIndexes = R"sql(
CREATE INDEX IF NOT EXISTS connections_server ON connections (server);
CREATE INDEX IF NOT EXISTS messages_time ON messages (time_unix);
CREATE INDEX IF NOT EXISTS messages_sender_domain ON messages (sender_domain);
CREATE INDEX IF NOT EXISTS messages_receiver_domain ON messages (receiver_domain);
CREATE INDEX IF NOT EXISTS messages_subject ON messages (email_subject);
CREATE INDEX IF NOT EXISTS messages_server ON messages (email_server);
CREATE INDEX IF NOT EXISTS messages_connection ON messages (connection_id);
CREATE INDEX IF NOT EXISTS entries_time ON entries (time_unix);
CREATE INDEX IF NOT EXISTS diagnosis_time ON diagnosis (time);
CREATE INDEX IF NOT EXISTS diagnosis_server ON diagnosis (server, event);
CREATE INDEX IF NOT EXISTS notices_kind ON notices (kind);
CREATE INDEX IF NOT EXISTS attachments_message ON attachments (email_number);
CREATE INDEX IF NOT EXISTS attachments_sha256 ON attachments (sha256);
)sql";

}  // namespace pelka
