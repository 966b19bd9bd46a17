// Part of programs with this library in builds with the address sanitizer only: what the libraries under
// PLplot allocate once in a process and leave to its end. Everything else that leaks is still found.
// NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" const char* __lsan_default_suppressions();
extern "C" const char* __lsan_default_options();

extern "C" const char* __lsan_default_suppressions() {
    return "leak:libfontconfig\nleak:libltdl\n";
}

// The runs are compared by what they print.
extern "C" const char* __lsan_default_options() {
    return "print_suppressions=0";
}
// NOLINTEND(bugprone-reserved-identifier)
