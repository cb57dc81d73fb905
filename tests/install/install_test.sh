#!/usr/bin/env bash
# Installs the build under a temporary prefix and packs it as a .deb: the
# installed and the unpacked program must both analyse the sample from another
# working folder with no environment variable, finding their module and its
# English texts; the package must name its runtime dependencies and hold only
# the installed layout.
set -euo pipefail
build=$(cd "$1" && pwd)
source=$(cd "$2" && pwd)
work=$(mktemp -d)
chmod 755 "$work"  # the service's user must reach its state folder, as under /var/lib
trap 'rm -rf "$work"' EXIT
unset PELKA_MODULE
fail() { echo "FAIL: $*" >&2; exit 1; }

# Runs a program on the sample from / and checks the summary and the texts.
run_sample() {
  local program=$1 out=$work/out-$2 summary
  summary=$(cd / && TZ=UTC "$program" -o "$out" "$source/samples/mail-sample.pcap" 2>&1) || fail "$2: $summary"
  grep -q "Messages: 3 (SMTP 1, POP3 1, IMAPv4 1)" <<<"$summary" || fail "$2 summary: $summary"
  head -1 "$out/email_log.csv" | grep -q "^Date and Time, " || fail "$2: the English texts were not found"
}

expected_layout='bin/pelka-email
lib/pelka/libPelkaEmail.so
lib/pelka/resources/email.ico
lib/pelka/resources/en/PelkaEmailRes.cst
lib/pelka/resources/zh/PelkaEmailRes.cst
lib/systemd/system/pelka-email@.service
share/doc/pelka-email/README.md
share/doc/pelka-email/copyright
share/man/man1/pelka-email.1'

# Installed under a prefix that is not /usr.
cmake --install "$build" --prefix "$work/prefix" >/dev/null
run_sample "$work/prefix/bin/pelka-email" installed
layout=$(cd "$work/prefix" && find . -type f | sed 's|^\./||' | sort)
[ "$layout" = "$expected_layout" ] || fail "installed files:"$'\n'"$layout"
for section in NAME SYNOPSIS OPTIONS OUTPUTS ENVIRONMENT FILES EXAMPLES; do
  grep -q "^\.SH \"\?$section" "$work/prefix/share/man/man1/pelka-email.1" || fail "the man page lacks $section"
done
grep -qF -- '\-\-copies' "$work/prefix/share/man/man1/pelka-email.1" || fail "the man page lacks the options"

# The Debian package.
(cd "$build" && cpack -G DEB -B "$work/package" >/dev/null) || fail "cpack -G DEB failed"
deb=$(ls "$work"/package/pelka-email_*.deb)
info=$(dpkg-deb --info "$deb")
for dependency in libpcap0.8 libpugixml1v5 libsqlite3-0 libc6; do
  grep -q "Depends:.*$dependency" <<<"$info" || fail "the package does not depend on $dependency:"$'\n'"$info"
done
dpkg-deb -x "$deb" "$work/root"
run_sample "$work/root/usr/bin/pelka-email" unpacked
packed=$(cd "$work/root/usr" && find . -type f | sed 's|^\./||' | sort)
[ "$packed" = "$expected_layout" ] || fail "packed files:"$'\n'"$packed"
if grep -rqF "$build" "$work/root/usr/bin" "$work/root/usr/lib"; then fail "the package refers to the build folder"; fi
dpkg-deb -e "$deb" "$work/control"
grep -q "adduser --system" "$work/control/postinst" || fail "the package does not make the service's user"

# The service's command, run as its unit runs it (the unpacked program, a
# temporary state folder, an existing user): it captures on lo in a folder named
# by its start time until SIGTERM ends it with status 0 and its files whole.
if [ "$(id -u)" -ne 0 ]; then
  echo "install and package: ok (the service run needs root; skipped)"
  exit 0
fi
command=$(sed -n 's/^ExecStart=//p' "$work/root/usr/lib/systemd/system/pelka-email@.service")
command=${command//%%/@percent@}  # systemd's specifiers: %% and %i, nothing else here
command=${command//%i/lo}
[[ $command != *%* ]] || fail "the unit uses a specifier it should not: $command"
command=${command//@percent@/%}
command=${command//\/usr\/bin\/pelka-email/$work/root/usr/bin/pelka-email}
command=${command//\/var\/lib\/pelka-email/$work/state}
command=${command//--user pelka-email/--user nobody}
(eval "exec $command") &
service=$!
sleep 2
kill -TERM "$service"
status=0
wait "$service" || status=$?
[ "$status" -eq 0 ] || fail "the service's run ended with status $status"
folder=$(ls -d "$work"/state/lo/2*)
[ -s "$folder/statistics.json" ] && [ -f "$folder/emails.jsonl" ] || fail "the service's run left: $(ls -la "$folder")"
[ "$(stat -c %U "$folder")" = nobody ] || fail "the service's folder belongs to $(stat -c %U "$folder")"
echo "install and package: ok"
