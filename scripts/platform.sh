# Compiles the daemon's policy together with the platform's. Sourced; TREE is a checkout of the platform's
# source, or the parts of one that scripts/platform-test needs.
# shellcheck shell=bash

platform_level=30

# The files of a policy, in the order of the platform's build.
policy_parts=(security_classes initial_sids access_vectors global_macros neverallow_macros mls_macros
    mls_decl mls policy_capabilities te_macros attributes ioctl_defines ioctl_macros '*.te'
    roles_decl roles users initial_sid_contexts fs_use genfs_contexts port_contexts)

# policy_conf VARIANT DIRECTORY...: prints the policy of the directories as one file. VARIANT is the kind of
# build: user, userdebug or eng.
policy_conf() {
    local variant=$1 part directory file files=()
    shift
    for part in "${policy_parts[@]}"; do
        for directory in "$@"; do
            # Unquoted, since one part is a pattern.
            # shellcheck disable=SC2231
            for file in "$directory"/$part; do
                [[ -f $file ]] && files+=("$file")
            done
        done
    done
    m4 --fatal-warnings -D mls_num_sens=1 -D mls_num_cats=1024 \
        -D target_build_variant="$variant" -D target_arch=arm64 -D target_with_dexpreopt=true \
        -D target_with_asan=false -D target_with_native_coverage=false -D target_full_treble=true \
        -D target_compatible_property=true -D target_treble_sysprop_neverallow=true \
        -D target_exclude_build_test= -D target_requires_insecure_execmem_for_swiftshader=false \
        -s "${files[@]}"
}

# platform_policy TREE ANDROID VARIANT OUT [OPTION]...: compiles the whole policy of a device and checks all
# neverallow rules. ANDROID is the project's directory of that name or a copy of it. Each OPTION is passed to
# the compiler, such as "-U allow" for a kernel with classes that the platform's kernel lacks.
platform_policy() {
    local tree=$1/system/sepolicy own=$2 variant=$3 out=$4
    shift 4
    policy_conf "$variant" "$tree"/{public,private,vendor} "$own"/sepolicy/system/{public,private} \
        "$own"/sepolicy/vendor "$own"/device/sepolicy >"$out.conf" &&
        checkpolicy -M -c "$platform_level" "$@" -o "$out" "$out.conf"
}

# platform_vendor_policy TREE ANDROID OUT: compiles the vendor half alone, without the system's private policy.
platform_vendor_policy() {
    local tree=$1/system/sepolicy own=$2 out=$3
    policy_conf user "$tree"/{reqd_mask,public} "$own"/sepolicy/system/public "$tree"/vendor \
        "$own"/sepolicy/vendor "$own"/device/sepolicy >"$out.conf" &&
        checkpolicy -C -M -c "$platform_level" -o "$out" "$out.conf"
}

# sort_contexts: sorts file contexts from standard input as the platform's build does. The last entry that
# matches a path counts, so patterns come before plain paths and shorter stems before longer ones.
sort_contexts() {
    awk 'NF && !/^ *#/ {
        stem = meta = 0
        for (i = 1; i <= length($1) && !meta; i++) {
            character = substr($1, i, 1)
            if (character == "\\")
                i++
            else
                meta = index(".^$?*+|[({", character) > 0
            stem += !meta
        }
        print 1 - meta, stem, length($1), NF, $0
    }' | sort -s -k1,1n -k2,2n -k3,3n -k4,4n | cut -d' ' -f5-
}

# platform_file_contexts TREE ANDROID POLICY OUT: compiles the file labels of the platform and of the project, or of
# the platform alone if ANDROID is empty, and checks that POLICY has every label. OUT must not exist: the
# compiler would replace it, even a device node.
platform_file_contexts() {
    local tree=$1/system/sepolicy own=$2 policy=$3 out=$4 directories=()
    [[ -z $own ]] || directories=("$own"/{sepolicy/vendor,device/sepolicy})
    directories+=("$tree"/{private,vendor})
    cat "${directories[@]/%//file_contexts}" |
        sort_contexts >"$out.txt" && sefcontext_compile -p "$policy" -o "$out" "$out.txt"
}
