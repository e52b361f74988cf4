#!/usr/bin/env bash
# scripts/collect with a fake adb that runs the commands in a directory.
#
#   tests/collect_test.sh BUILD-DIRECTORY SOURCE-DIRECTORY
set -uo pipefail
# shellcheck source=tests/support/tool.sh
. "$(dirname "$0")/support/tool.sh"
collect=$source/scripts/collect
scenarios=$source/lab/scenarios/device.toml

mkdir bin
cat >bin/adb <<'END'
#!/bin/sh
case $1 in
    get-state) [ -n "${PHONE-}" ] && echo device ;;
    exec-out | shell) PATH=$TOOLS:$PATH sh -c "$(printf '%s' "$2" | sed "s,/\(data\|vendor\)/,$PHONE&,g")" ;;
esac
END
mkdir tools
printf '#!/bin/sh\necho "[ro.build.fingerprint]: [a/b]"\n' >tools/getprop
printf '#!/bin/sh\necho "<6>lnkm: rvd: main: x"\n' >tools/dmesg
printf '#!/bin/sh\necho "D/boot: rvd: main: x"\n' >tools/logcat
chmod +x bin/adb tools/*
export PATH=$work/bin:$PATH PHONE='' TOOLS=$work/tools TMPDIR=$work
"$build/rvd-lab" run --story --root phone --case 'tq720 crashes and*' "$scenarios" >/dev/null ||
    fail "the virtual phone did not run"
saved=phone/data/vendor/log/rvd

expect 2 'no phone answers' "$collect"
export PHONE=$work/phone
expect 2 'usage' "$collect" --remove
expect 2 'megabytes' "$collect" --quota 1G
expect 0 'out:rvd-report all.tar.gz' "$collect" -o all.tar.gz
tar -xzf all.tar.gz
(cd rvd-2* && sha256sum --quiet -c SHA256SUMS) || fail "the sums are wrong"
diff -r rvd-2*/rvd "$saved" || fail "files differ"
for part in getprop.txt dmesg.txt logcat_radio.txt 'rvd '; do
    grep -qE "^$part +ok" rvd-2*/MANIFEST || fail "no $part in the manifest"
done
expect 0 'out:prefetch abort in task L1C' "$build/rvd-report" all.tar.gz

# The manifest names what could not be collected; a file that changes during the copy is listed.
cp tools/dmesg dmesg
printf '#!/bin/sh\nexit 1\n' >tools/dmesg
expect 1 'out:^dmesg.txt +FAILED' "$collect" -o some.tar.gz
cp dmesg tools/dmesg
printf '#!/bin/sh\nsha256sum "$@" && echo more >>rvd/sr_info_umts\n' >tools/find
sed -i 's/sha256sum "$@"/\/usr\/bin\/find "$@"/' tools/find
chmod +x tools/find
expect 1 'out:^rvd/sr_info_umts$' "$collect" -o changed.tar.gz
rm tools/find

# The quota removes whole crashes, oldest first; the latest crash and all silent-reset records stay.
mkdir -p "$saved/err"
echo waits >"$saved/err/last_sr_info_umts"
for name in cpcrash_umts_dump_20190101-0001 cpcrash_umts_log_20190101-0001 \
    cpcrash_umts_klog_after_201901010001_59 cpcrash_umts_dump_20190202-0002; do
    head -c 1500000 /dev/zero >"$saved/$name.log"
done
before=$(find "$saved" -type f | wc -l)
expect 0 'out:would remove rvd/cpcrash_umts_dump_20190101-0001.log' "$collect" -o q.tar.gz --quota 6
! grep -q 20190202 out || fail "would remove more than needed: $(cat out)"
[[ $(find "$saved" -type f | wc -l) == "$before" ]] || fail "removed files without --remove"
expect 0 'out:removed rvd/cpcrash_umts_klog_after_201901010001_59.log' "$collect" -o q.tar.gz --quota 6 --remove
[[ $(find "$saved" -type f | wc -l) == $((before - 3)) ]] || fail "removed other files"
expect 0 'out:are left' "$collect" -o q.tar.gz --quota 0 --remove
[[ -e $saved/sr_info_umts && -e $saved/err/last_sr_info_umts && ! -e $saved/cpcrash_umts_dump_20190202-0002.log ]] ||
    fail "quota 0 left $(ls "$saved")"
compgen -G "$saved/cpcrash_umts_dump_20*.log" >/dev/null || fail "the latest crash is gone"

verdict "evidence is collected, and removed down to the quota"
