#!/usr/bin/env bash
# The qor tool as a user meets it: every subcommand answers --help, bad usage gives one line and
# exit status 2, a failed file one line and status 1, and the library's log reaches standard error
# only with -v or QOR_LOG_LEVEL, and a file with --log.
# Usage: qor_tool_test.sh PATH_TO_QOR
set -uo pipefail
QOR=$1
WORK=$(mktemp -d)
trap 'rm -rf "$WORK"' EXIT
cd "$WORK" || exit 1
failures=0
fail() {
    echo "FAIL: $*" >&2
    failures=$((failures + 1))
}

# run ARGS...: runs qor with no terminal; $status, out and err hold what came back.
run() {
    status=0
    "$QOR" "$@" >out 2>err </dev/null || status=$?
}
lines() { wc -l <"$1"; }
# A line of the library's log: "2026-11-24 06:49:12.200 [2] T3 imaging/....cpp:92: text".
LOG_LINE='^[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9:.]+ \[[0-9]\] T[0-9]+ [^ ]+:[0-9]+: '
log_lines() { grep -cE "$LOG_LINE" "$1"; }

SUBCOMMANDS="help version jobs tiles pipeline info thumb checksum export gpuinfo import"

run help
[ "$status" -eq 0 ] || fail "qor help: exit status $status"
overview=$(cat out)
for c in $SUBCOMMANDS; do
    grep -q "^  $c " <<<"$overview" || fail "qor help does not list $c"

    run "$c" --help
    [ "$status" -eq 0 ] || fail "qor $c --help: exit status $status"
    [ -s err ] && fail "qor $c --help wrote on standard error: $(cat err)"
    head -n 1 out | grep -q "^usage: qor $c\b" || fail "qor $c --help: no usage line"
    grep -q "^  qor $c\b" out || fail "qor $c --help: no example"
    page=$(cat out)
    run help "$c"
    [ "$(cat out)" = "$page" ] || fail "qor help $c differs from qor $c --help"

    run "$c" --no-such-option
    [ "$status" -eq 2 ] || fail "qor $c --no-such-option: exit status $status, not 2"
    [ "$(lines err)" -eq 1 ] && grep -q -- "--no-such-option" err ||
        fail "qor $c --no-such-option: not one line naming the option: $(cat err)"
    [ -s out ] && fail "qor $c --no-such-option printed on standard output"
done
run export -h
[ "$status" -eq 0 ] && head -n 1 out | grep -q "^usage: qor export\b" || fail "qor export -h: no help"
run -h
[ "$status" -eq 0 ] && [ "$(cat out)" = "$overview" ] || fail "qor -h differs from qor help"
for bad in "--no-such-option" "no-such-subcommand" "help no-such-subcommand" "" "--log"; do
    # shellcheck disable=SC2086
    run $bad
    [ "$status" -eq 2 ] && [ "$(lines err)" -eq 1 ] ||
        fail "qor $bad: exit status $status and $(lines err) lines, not 2 and one line"
done

# A picture to work on, then a command that makes the library log (the memory manager's release).
run tiles --width 96 --height 64 --tile 32 --save picture.jpg
[ "$status" -eq 0 ] || fail "qor tiles --save: exit status $status: $(cat err)"
export_args=(export picture.jpg -o half.tif --scale 0.5)

run "${export_args[@]}"
[ "$status" -eq 0 ] && [ -s half.tif ] || fail "qor export: exit status $status: $(cat err)"
[ -s err ] && fail "qor export without -v wrote on standard error: $(cat err)"

run "${export_args[@]}" -v
[ "$status" -eq 0 ] || fail "qor export -v: exit status $status"
grep -qE "${LOG_LINE}Releasing ImageMemoryManager ressources" err ||
    fail "qor export -v: the log is not on standard error: $(cat err)"
[ "$(log_lines err)" -eq "$(lines err)" ] || fail "qor export -v: lines other than the log: $(cat err)"
info_lines=$(lines err)
run -vv "${export_args[@]}"
[ "$(log_lines err)" -gt "$info_lines" ] || fail "qor -vv export: no more lines than with -v"

QOR_LOG_LEVEL=2 run "${export_args[@]}"
grep -q "Releasing ImageMemoryManager ressources" err || fail "QOR_LOG_LEVEL=2: the log is not shown"

for where in before after; do
    rm -f run.log
    if [ $where = before ]; then run --log run.log "${export_args[@]}"; else run "${export_args[@]}" --log run.log; fi
    [ "$status" -eq 0 ] || fail "--log $where the subcommand: exit status $status"
    [ -s err ] && fail "--log $where the subcommand wrote on standard error: $(cat err)"
    grep -qE "${LOG_LINE}Releasing ImageMemoryManager ressources" run.log ||
        fail "--log $where the subcommand: the log file lacks the library's lines"
done
run --log no-such-folder/run.log version
[ "$status" -eq 1 ] && [ "$(lines err)" -eq 1 ] && [ ! -s out ] ||
    fail "a log file that cannot be opened: exit status $status, $(lines err) lines"

# Failed files: one line each and exit status 1, with the library's own lines only under -v.
run export missing.jpg -o out.jpg
[ "$status" -eq 1 ] && [ "$(lines err)" -eq 1 ] ||
    fail "qor export of a missing file: exit status $status and $(lines err) lines: $(cat err)"
head -c 2000 picture.jpg >truncated.jpg
run thumb truncated.jpg -o thumb.jpg
[ "$status" -eq 1 ] && [ "$(lines err)" -eq 1 ] ||
    fail "qor thumb of a truncated file: exit status $status and $(lines err) lines: $(cat err)"
run thumb truncated.jpg -o thumb.jpg -v
[ "$status" -eq 1 ] && [ "$(log_lines err)" -ge 1 ] ||
    fail "qor thumb -v of a truncated file: the library's lines are not shown: $(cat err)"

# The image log: --image-log and QOR_IMAGE_LOG dump the export's pictures with an index that links
# each of them; without either nothing is dumped.
run "${export_args[@]}" --image-log pictures
[ "$status" -eq 0 ] || fail "qor export --image-log: exit status $status: $(cat err)"
[ -s pictures/index.html ] || fail "qor export --image-log: no index.html"
pngs=$(find pictures -name '*.png' | wc -l)
[ "$pngs" -gt 0 ] || fail "qor export --image-log: no PNG"
for f in pictures/*.png pictures/*.svg; do
    grep -q "href=\"$(basename "$f")\"" pictures/index.html || fail "index.html does not link $f"
done
QOR_IMAGE_LOG=$WORK/from-env run "${export_args[@]}"
[ -s from-env/index.html ] && [ "$(find from-env -name '*.png' | wc -l)" -eq "$pngs" ] ||
    fail "QOR_IMAGE_LOG: not the same pictures as --image-log"
touch not-a-folder
run "${export_args[@]}" --image-log not-a-folder/below
[ "$status" -eq 1 ] && [ "$(lines err)" -eq 1 ] ||
    fail "qor --image-log into a file: exit status $status and $(lines err) lines: $(cat err)"
run "${export_args[@]}" --image-log
[ "$status" -eq 2 ] || fail "qor --image-log without a folder: exit status $status"

# An option's value is the subcommand's, even where it looks like a global option.
run thumb picture.jpg --size 32x32 -o -v.jpg
[ "$status" -eq 0 ] && [ -s ./-v.jpg ] || fail "qor thumb -o -v.jpg: exit status $status: $(cat err)"

[ "$failures" -eq 0 ] || exit 1
echo "qor tool: help, usage errors and log routing as expected"
