// Part of the in-process tests, and of the daemon in an address-sanitizer build alone. A command
// line that names two modems leaves the first one's objects to the end of the process, as the
// registry does with everything; so does a test that has many command lines.
extern "C" const char* __lsan_default_suppressions() {
    return "leak:rvd::Container::\n";
}

extern "C" const char* __lsan_default_options() {
    return "print_suppressions=0";
}
