#!/bin/sh
# The package's postinst hands files in the service user's folders over to
# that user. Here that user (daemon, in a temporary folder) wins every race
# it can: it swaps the file for a link to a root-only file right before
# postinst's chown, or right before its chmod, or plants a link where the
# database is to be made. The root-only file must come out untouched.
#   postinst_handover_test.sh POSTINST TSANOMALYCTL   (as root; 77: skipped)
set -eu
postinst=$1 tsanomalyctl=$2
[ "$(id -u)" -eq 0 ] || { echo "needs root (chown, setpriv)"; exit 77; }
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
chmod 0755 "$work"
fail() { echo "postinst_handover_test: FAIL: $*" >&2; exit 1; }
owner_mode() { stat -c '%U:%G %a' "$1"; }

# postinst's functions and settings, without running its configure step.
sed '/^if \[ "$1" = "configure" \]; then/,$d' "$postinst" > "$work/functions"
grep -q '^give_to_service()' "$work/functions" || fail "no give_to_service in $postinst"
folder=$work/data
victim=$work/victim
mkdir "$work/bin" "$work/root-only"
chmod 0700 "$work/root-only"

# A fresh round: the service user's folder holding a root-owned file, and
# the root-only secret.
setup() {
  rm -rf "$folder" "$work/root-only/"*
  install -d -o daemon -g daemon -m 0750 "$folder"
  echo secret > "$victim" && chmod 0600 "$victim" && chown root:root "$victim"
  echo database > "$folder/anomaly.db" && chmod 0644 "$folder/anomaly.db"
}

# A command of that name that first swaps its last argument for a link to
# the victim, as the service user would in the gap before it runs.
racing() {
  real=$(command -v "$1")
  cat > "$work/bin/$1" <<SCRIPT
#!/bin/sh
for last; do :; done
rm -f "\$last" && ln -s "$victim" "\$last"
exec $real "\$@"
SCRIPT
  chmod 0755 "$work/bin/$1"
}

# Runs postinst's give_to_service on the database, commands in bin/ first.
hand_over() {
  (PATH="$work/bin:$PATH" && . "$work/functions" && user=daemon && give_to_service "$folder/anomaly.db") 2>/dev/null || true
}

setup
hand_over
[ "$(owner_mode "$folder/anomaly.db")" = "daemon:daemon 640" ] || fail "a plain file was not handed over: $(owner_mode "$folder/anomaly.db")"

for command in chown chmod; do
  setup
  rm -f "$work/bin/"*
  racing "$command"
  hand_over
  [ -L "$folder/anomaly.db" ] || fail "the race before $command was not run"
  [ "$(owner_mode "$victim")" = "root:root 600" ] || fail "a link swapped in before $command reached the root-only file: $(owner_mode "$victim")"
done
rm -f "$work/bin/"*

setup
ln -sf "$victim" "$folder/anomaly.db"
hand_over
[ "$(owner_mode "$victim")" = "root:root 600" ] || fail "a planted link reached the root-only file"

# The database is made by the service user: not through a planted link into
# a folder only root may write, and owned by that user when all is well.
setup
rm "$folder/anomaly.db"
ln -s "$work/root-only/made-by-root.db" "$folder/anomaly.db"
(PATH="$(dirname "$tsanomalyctl"):$PATH" && . "$work/functions" && user=daemon && create_database "$folder/anomaly.db") \
  >/dev/null 2>&1 || true
[ ! -e "$work/root-only/made-by-root.db" ] || fail "the database was made through a planted link"
rm "$folder/anomaly.db"
(PATH="$(dirname "$tsanomalyctl"):$PATH" && . "$work/functions" && user=daemon && create_database "$folder/anomaly.db")
[ "$(owner_mode "$folder/anomaly.db")" = "daemon:daemon 640" ] || fail "the new database is $(owner_mode "$folder/anomaly.db")"
echo "postinst_handover_test: passed"
