#!/usr/bin/env bash
# The command line of rvd-report: exit statuses, what it prints of good, cut and hostile evidence, and
# that it writes nothing but the picture.
#
#   report/tests/tool_test.sh BUILD-DIRECTORY SOURCE-DIRECTORY
set -uo pipefail
unset NO_COLOR
# shellcheck source=tests/support/tool.sh
. "$(dirname "$0")/../../tests/support/tool.sh"
report=$build/rvd-report
cases=$source/tests/scenarios
"$build/rvd-lab" demo --brief --root demo >/dev/null || exit 1
"$build/rvd-lab" run --quiet --root silent --case 'the modem stops answering in step 2' "$cases/dump_link.toml" >/dev/null || exit 1
saved=demo/data/vendor/log/rvd
dump=cpcrash_umts_dump_20201001-1231.log
mkdir empty cut hostile damaged holes bomb
tar czf whole.tar.gz -C "$saved" .
tar cf half.tar -C "$saved" .
truncate -s 100K half.tar
cp -r "$saved"/. cut
cp -r "$saved"/. holes
truncate -s 0 "holes/$dump"
truncate -s 129M "holes/$dump"
tar cSf holes.tar -C holes .
truncate -s 5G "bomb/$dump"
tar cSzf bomb.tar.gz -C bomb .
truncate -s 100M "cut/$dump"
printf ': CP Crash by CP - \033]0;x\007\033[2J\342\200\256evil<script>' >hostile/cpcrash_umts_info_tq720_20201001-1231.log
touch "hostile/$(printf 'x\033[31m')"
tail -n +2 "$saved/sr_info_umts" >damaged/sr_info_umts
python3 - <<'PYTHON'
import pathlib, random, tarfile, zipfile
noise = random.Random(1)
for name in "log_20201001-1231", "klog_after_202010011231_20":
    pathlib.Path(f"hostile/cpcrash_umts_{name}.log").write_bytes(
        b"main: \x1b[2J\n" + noise.randbytes(300000))
saved = pathlib.Path("demo/data/vendor/log/rvd")
with zipfile.ZipFile("whole.zip", "w", zipfile.ZIP_DEFLATED) as archive:
    for file in sorted(saved.iterdir()):
        if file.is_file():
            archive.write(file, "crashes/" + file.name)
with tarfile.open("outside.tar", "w") as archive:
    archive.add(saved / "sr_info_umts", "../outside/sr_info_umts")
    link = tarfile.TarInfo("last_sr_info_umts")
    link.type, link.linkname = tarfile.SYMTYPE, "/etc/passwd"
    archive.addfile(link)
PYTHON

always() {
    ! LC_ALL=C grep -qP '[\x00-\x08\x0b-\x1f\x7f]' out err || fail "control characters from: $*"
}

before=$(find . -type f | sort)
while IFS='|' read -r status pattern words; do
    eval "expect $status '$pattern' \"\$report\" $words"
done <<'TABLE'
0|out:^Examples:|--help
0|out:--first-until|diff --help
0|out:^rvd-report [0-9]+\.|--version
2|evidence is required|
2|unknown argument "--timelin"; did you mean "--timeline"|--timelin demo
2|unknown argument "--incomplet"; did you mean "--incomplete"|list --incomplet demo
2|^rvd-report: none: No such file|none
2|nothing in it was left by rvd|empty
2|hostile/cpcrash_umts_info|hostile/cpcrash_umts_info_tq720_20201001-1231.log
2|half.tar: .*[Tt]runcated|half.tar
2|yesterday: not a time|list --since yesterday demo
2|cannot write none/x.svg: No such|--picture none/x.svg demo
0|out:^nothing was lost$|demo
0|out:^nothing was lost$|whole.tar.gz
0|out:^nothing was lost$|whole.zip
1|out:^lost: cpcrash_umts_dump_20201001-1231.log short$|cut
1|out:dump_20201001.* short: 29 MiB missing, in step 2, frame 2049 of 16384|cut
0|out:^nothing was lost$|holes.tar
1|out:unreadable: longer than any file of rvd|bomb.tar.gz
1|out:^lost: sr_info_umts unreadable; last_sr_info_umts unreadable$|outside.tar
1|out:why +.x1b]0;x.x07.x1b.2J.xe2.x80.xaeevil<script>$|hostile
1|out:"means": "the modem.s boot loader has been silent for 30 s"|--json silent
0|out:^ +77.400000  status_loop: get event 2  = crash$|--timeline demo
0|out:-- 20 s of silence --|--timeline demo
1|out:-- dump tried again 6 times|--timeline silent
0|out:^2 incidents$|list demo
0|out:^1 incident$|list --since "2020-10-01 12:31" demo
0|out:^0 incidents$|list --since 2020-10-02 demo
1|out:UMTS: prefetch abort .* dump short$|list --incomplete silent
0|out:^alike$|diff demo whole.zip
1|out:^! dump +129 MiB, complete$|diff demo cut
1|out:^they differ$|diff --second-until "2020-10-01 12:30" demo silent
2|silent: no crash|diff demo --second-until 2020-09-01 silent
0|out:silent reset in L2|records demo
1|out:a row of no record at offset 0|records damaged
2|no line of the daemon|scenario damaged
0|out:^modem = "tq720"$|scenario demo
TABLE
[[ $(find . -type f | grep -vE '^./(out|err)$' | sort) == "$before" ]] || fail "files were written: $(find . -newer err)"

# Without the Android log too, a scenario leads to the end of the evidence.
"$report" scenario whole.tar.gz >made.toml
expect 0 'out:1 passed' "$build/rvd-lab" run made.toml
"$report" scenario hostile >made.toml
expect 0 'out:made.toml: 1 case' "$build/rvd-lab" check made.toml
expect 0 out:lost "$report" --picture demo.svg demo
python3 -c 'import xml.dom.minidom as dom; dom.parse("demo.svg")' || fail "the picture is no XML"
expect 1 out:lost "$report" --picture hostile.svg hostile
grep -qE '<(script|a|image|foreignObject)|href|onload' demo.svg hostile.svg && fail "a picture with a script or a link"
# shellcheck disable=SC2016
expect 2 'cannot write the report' sh -c 'exec "$0" demo >/dev/full' "$report"
"$report" --timeline demo 2>err | head -n 1 >out
[[ ! -s err ]] || fail "a closed pipe is an error: $(cat err)"

# Colours on a terminal alone, and not where NO_COLOR forbids them.
on_terminal() {
    python3 -c 'import pty, sys; pty.spawn(sys.argv[1:])' "$@" </dev/null >out
}
on_terminal "$report" demo
grep -q $'\033\[32mcomplete\033\[0m' out || fail "no colours on a terminal"
on_terminal env NO_COLOR=1 "$report" demo
grep -q $'\033' out && fail "colours against NO_COLOR"

# What the shell completes is what the help says.
# shellcheck source=/dev/null
source "$source/docs/completion/rvd.bash"
complete_words() {
    COMP_WORDS=("$report" "$@") COMP_CWORD=$#
    _rvd
    echo "${COMPREPLY[*]}"
}
[[ $(complete_words rec) == records && $(complete_words list --inc) == --incomplete &&
    $(complete_words --pic) == --picture ]] || fail "completion: $(complete_words '')"

verdict "all of the command line is as expected"
