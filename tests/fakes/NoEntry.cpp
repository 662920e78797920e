// A shared library that is not the NDI runtime: it loads, but has no NDIlib_v5_load.
extern "C" __attribute__((visibility("default"))) int NotTheNDIRuntime() {
    return 0;
}
