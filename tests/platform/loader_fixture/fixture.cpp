// A stand-in plug-in for the loader's tests, built several times under other
// names, versions and folders (tests/CMakeLists.txt). KY_FIXTURE_PREFIX names
// its exports; without KY_FIXTURE_VERSION it has no version export at all.
#define KY_FIXTURE_EXPORT extern "C" __attribute__((visibility("default")))
#define KY_FIXTURE_JOIN2(prefix, name) prefix##_##name
#define KY_FIXTURE_JOIN(prefix, name) KY_FIXTURE_JOIN2(prefix, name)
#define KY_FIXTURE_STR2(x) #x
#define KY_FIXTURE_STR(x) KY_FIXTURE_STR2(x)

#ifdef KY_FIXTURE_VERSION
KY_FIXTURE_EXPORT int KY_FIXTURE_JOIN(KY_FIXTURE_PREFIX, GetVersion)() {
    return KY_FIXTURE_VERSION;
}
// Padded, as a version block's text may be: readers trim it.
KY_FIXTURE_EXPORT const char* KY_FIXTURE_JOIN(KY_FIXTURE_PREFIX, GetVersionString)() {
    return " " KY_FIXTURE_STR(KY_FIXTURE_VERSION) ".0.0.1 ";
}
#endif

KY_FIXTURE_EXPORT int KY_FIXTURE_JOIN(KY_FIXTURE_PREFIX, Combine)(int a, int b) {
    return a * 100 + b;
}
