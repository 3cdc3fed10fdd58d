// A library that is no channel plug-in.
extern "C" __attribute__((visibility("default"))) int apiVersion()
{
    return 16;
}
