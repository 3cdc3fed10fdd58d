// Only for builds with the address sanitizer. The program and the plug-in each contain the interfaces'
// type information, on purpose, and share one copy at run time. The sanitizer would report the second
// copy as an error.
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options()
{
    return "detect_odr_violation=0";
}
