// Linked into the in-process tests, and into the programs of an address-sanitizer build. The
// registry never frees an object: not at exit, and not when a second -t replaces the first.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:rvd::Container::\n";
}

extern "C" const char* __lsan_default_options() {
    return "print_suppressions=0";
}
