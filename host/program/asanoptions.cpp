// For builds with the address sanitizer only: the program and the plug-in that it loads
// each carry the interfaces' type information, on purpose, and share one copy at run time.
// The sanitizer takes the second copy for an error.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options()
{
    return "detect_odr_violation=0";
}
