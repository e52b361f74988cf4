#!/usr/bin/env bash
# The command line of rvd-lab: exit statuses, error messages, and that no file changes but those named.
#
#   tests/lab_tool_test.sh BUILD-DIRECTORY SOURCE-DIRECTORY
# shellcheck disable=SC2015,SC2016,SC2181
set -uo pipefail
unset NO_COLOR TMPDIR
# shellcheck source=tests/support/tool.sh
. "$(dirname "$0")/support/tool.sh"
lab=$build/rvd-lab
mkdir shared tmp closed
touch closed/file
chmod 1777 shared
ln -s "$work/victim" shared/link
ln -s "$work/target" link
printf '[[case]]\nmodme = "x"\n' >misspelt.toml
cp "$source/lab/scenarios/demo.toml" demo.toml
python3 - <<'PYTHON'
import struct
table = b"".join(struct.pack("<12s5I", *row) for row in (
    (b"TOC", 0, 0x1000, 512, 0, 4), (b"BOOT", 512, 0x2000, 70000, 0x11, 0),
    (b"MAIN", 131072, 0x20000, 3000000, 0x22, 0), (b"NV", 0, 0x400000, 4096, 0x33, 0)))
open("cut", "wb").write(table.ljust(200512, b"\0"))
open("no_toc", "wb").write(b"BOOT".ljust(4096, b"\0"))
open("image", "wb").write(table)
table = struct.pack("<12s5I", b"TOC", 0, 0x1000, 512, 0, 3)
table += struct.pack("<12s5I12s5I", b"BO\x1b\xff", 512, 0x2000, 1000, 0, 0, b"NV_PROT", 0, 0x3000, 64, 0, 0)
open("protected", "wb").write(table.ljust(4096, b"\0"))
PYTHON
truncate -s 200M image
export TMPDIR=$work/tmp

always() {
    ! grep -q '^rvd-lab: ' out || fail "an error on standard output: $*"
}

while IFS='|' read -r status pattern words; do
    eval "expect $status '$pattern' \"\$lab\" $words"
done <<'TABLE'
0|out:Usage|
0|out:^rvd-lab [0-9]+\.|--version
0|out:^rvd RVD-V|--version
2|dmeo.*did you mean "demo"|dmeo
2|modme.*did you mean "--modem"|demo --modme x
2|tq7|demo --modem tq7
2|is required|run
2|none.toml|run none.toml
2|directory: \.|run .
2|misspelt.toml:2:.*did you mean "modem"|run misspelt.toml
2|misspelt.toml:2:|check misspelt.toml
2|did you mean "demo tq720"|run --case "demo tq" demo.toml
0|out:^ +2 +MAIN +image +0x00020000 +0x00020000 +3000000 +0x00000022$|toc image
0|out:gap: 0x00011370 to 0x00020000, before MAIN|toc image
0|out:^vk880 boots from it|toc image
0|out:"name": "MAIN"|toc --json image
1|out:tq720 does not boot|toc cut
1|out:^  stage 2 MAIN is cut off: it ends at byte 3131072 of 200512$|toc cut
1|out:ERR! invalid TOC: No TOC|toc no_toc
1|out:^  stage 2 NV_PROT has no image$|toc protected
1|out:"name": "BO[?][?]"|toc --json protected
2|is required|toc
0|out:PASS|demo --brief --log booted --firmware image
2|no table|demo --firmware /dev/null
2|no flow.*did you mean "crash"|faults --only crsh
2|--jobs: Value 0 not in range|run --jobs 0 demo.toml
2|--spread: Value -5 not in range|faults --spread -5
2|cat not in \{fail,kill,cut\}|faults --kind cat
2|storn not in|soak --shape storn
2|--seed: Value 9+ not in range|soak --seed 99999999999999999999
2|--seed: Value 1x not in range|run --seed 1x demo.toml
2|maybe not in|demo --color=maybe
2|one run|run --log log demo.toml
2|one run|faults --trace trace
2|demo.toml|demo --root demo.toml
2|cannot make the directory|run --root demo.toml demo.toml
2|not made by rvd-lab|demo --root closed
2|executed: |demo --daemon demo.toml
2|link in a directory|demo --log shared/link
2|/none: No such|demo --log none/log
0|out:demo.toml: 2 cases|check demo.toml
0|out:^demo.toml: demo vk880|run --list demo.toml
0|out:^boot:write:[0-9]+:ENOSPC$|faults --only boot --list
0|out:modem is in state 2 \(crash\)|demo --log link --trace trace
0|out:PASS: all expected events|demo --brief --root kept
0|out:^PASS +demo tq720|run --case "demo tq*" --junit junit.xml demo.toml
0|out:"result": "PASS"|run --case "demo tq*" --json demo.toml
0|out:^boot:write:[0-9]+:after$|faults --kind kill --only boot --list
0|out:^first-boot:link:1:part$|faults --kind cut --only first-boot --list
0|out:1 passed, 0 failed|soak --passes 3 --seed 1 --log soak.log
0|out:1 passed, 0 failed|soak --passes 2 --seed 1 --verify-replay=2
TABLE

[[ -s target && -L link && ! -e victim && ! -e log ]] || fail "a result is in the wrong file"
grep -q 'toc\[2\].name = MAIN, b_off=0x00020000, m_off=0x00020000, size=0x002dc6c0' booted || fail "the wrong image booted"
grep -q '"traceEvents"' trace || fail "no trace"
grep -q '<testcase classname="demo.toml" name="demo tq720"' junit.xml || fail "no JUnit"
(($(grep -c 'main: Call boot start' soak.log) >= 3)) || fail "the log of a soak lacks a pass"
[[ -e kept/data/vendor/log/rvd ]] || fail "the phone's files were not kept"

# A root in use is refused, a full device and a missing directory are reported, a closed pipe is no error.
flock kept true || fail "the kept root is still locked"
expect 2 'in use by another run' flock kept "$lab" demo --root kept
"$lab" demo >/dev/full 2>err
[[ $? == 2 ]] && grep -q 'No space left' err || fail "a full device: $(cat err)"
expect 2 'TMPDIR' env TMPDIR=/none "$lab" demo
expect 0 'out:PASS' env TMPDIR= "$lab" demo --brief
expect 2 'ulimit -n' sh -c 'ulimit -n 8 && exec "$0" demo' "$lab"
"$lab" demo 2>err | head -n 1 >out
[[ ${PIPESTATUS[0]} == 141 && ! -s err ]] || fail "a closed pipe is an error: $(cat err)"
"$lab" faults --only crash --list 2>err | head -n 1 >out
[[ ${PIPESTATUS[0]} == 141 && ! -s err ]] || fail "a closed pipe is an error: $(cat err)"

# Root in a namespace without other users runs like an ordinary user. Without namespaces the error names the
# setting that forbids them.
if unshare -Ur true 2>/dev/null; then
    expect 0 'out:PASS' unshare -Ur "$lab" demo --brief
    expect 77 'user.max_user_namespaces' unshare -Ur sh -c \
        'echo 0 >/proc/sys/user/max_user_namespaces && exec "$0" demo' "$lab"
    expect 2 'the disk is full' unshare -Urm sh -c \
        'mount -t tmpfs -o size=20m tmpfs tmp && exec "$0" demo --root tmp/phone' "$lab"
fi

# Every check of a run can fail: two cases with wrong expectations, and a daemon that leaks a descriptor.
cat >wrong.toml <<'TOML'
[[case]]
name = "wrong expectations"
expect.log = ["no such line"]
expect.no_log = ["main: *"]
expect.requests = ["POWER_OFF"]
expect.no_requests = ["POWER_ON"]
expect.story = ["9 s POWER_ON"]
expect.whole_story = true
expect.times = { "main: Call boot start" = 7 }
expect.properties = { "vendor.rvd.boot_done" = "5" }
expect.end = "parked"
expect.lasts = "3 s"
expect.absent = ["/sys/power/wake_un*"]
expect.files = [{ path = "x*", number = 2 },
    { path = "/sys/power/wake_lock", size = 1, mode = "0600", text = "a*", equals = "erased" },
    { path = "/mnt/vendor/efs/nv_data.bin", size = 65536, equals = "dump" },
    { path = "/run/rvd/output", equals = "vss" }]
fault = [{ call = "open", path = "/none", error = "EIO" }]
loader = [{ at = "9.9", silent = true }]
driver.answer = [{ request = "POWER_OFF", result = 1 }]
timeline = [{ line = "never", state = 1 }]

[[case]]
name = "an unexpected error"
firmware.table = "BOOT MAIN"
limit = "500 ms"
expect.end = "limit"
expect.times = { "boot: ERR!*" = 1 }
TOML
printf '[[case]]\nname = "leaks"\nexpect.end = "exit 0"\n' >leaks.toml
cat >leaky <<'PYTHON'
#!/usr/bin/python3
import fcntl, os, time
os.open("/dev/kmsg", os.O_WRONLY)
os.open("/data/left", os.O_CREAT)
boot = os.open("/dev/umts_boot0", os.O_RDWR)
fcntl.ioctl(boot, 0x6F19)  # POWER_ON
os.close(boot)
time.sleep(1)
os.write(1, b"a runtime error: of a sanitizer\n")
PYTHON
chmod +x leaky
{
    "$lab" run --jobs 1 wrong.toml
    "$lab" run --daemon leaky leaks.toml
} | sed -n 's/^  FAIL: [0-9.]* s: //p' >out
cat >wanted <<'END'
the run ended before the timeline did
the fault in open /none never triggered
the answer to POWER_OFF was never given
the loader's deviation at 9.9 never triggered
no line "no such line" after the start
unexpected line "main: *"
no request "POWER_OFF" after the start
unexpected request "POWER_ON"
no story entry "9 s POWER_ON" after the start
109 lines and requests, not 1
expected 7 times, found 1: main: Call boot start
expected 2 files, found 0: /data/vendor/log/rvd/x*
/sys/power/wake_lock has 5 bytes, not 1
/sys/power/wake_lock has mode 0644, not 0600
/sys/power/wake_lock does not match "a*"
/sys/power/wake_lock differs from what the modem sent (erased)
/mnt/vendor/efs/nv_data.bin differs from what the modem sent (dump)
/run/rvd/output differs from what the modem sent (vss)
/sys/power/wake_unlock exists
property vendor.rvd.boot_done is "1", not "5"
the run ended with "waits", not "parked"
the run lasted 0.000000 s
unexpected error: prepare_boot_args: ERR! invalid TOC: No TOC
open changes /data/left
descriptor 4 is open at power-on: /data/left
descriptor 4 is left open: /data/left
a runtime error: of a sanitizer
END
diff wanted out || fail "the failed checks differ"

# A brief story, with colours.
"$lab" demo --brief --color=always >out
(($(wc -l <out) <= 36)) || fail "the brief story has $(wc -l <out) lines"
grep -q $'\033\[1m' out || fail "no colours"

# An interrupted soak reports its passes and removes its files; the next run removes those of a killed one.
for signal in TERM KILL; do
    "$lab" soak --passes 1000000 --seed 1 >out 2>&1 &
    soak=$!
    until run=$(pgrep -P $soak) && compgen -G "$TMPDIR/rvd-lab.*" >/dev/null; do sleep 0.05; done
    kill -$signal $soak
    wait $soak 2>/dev/null
    status=$?
    [[ $signal == KILL ]] || { ((status == 143)) && grep -q 'interrupted' out; } ||
        fail "an interrupted soak: $(cat out)"
    while kill -0 "$run" 2>/dev/null; do sleep 0.05; done
done
expect 0 'out:PASS' "$lab" run --case 'demo tq*' demo.toml
compgen -G "$TMPDIR/rvd-lab.*" && fail "left behind: $(ls "$TMPDIR")"

verdict "the command line works as expected"
