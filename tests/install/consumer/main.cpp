#include <kestrelyn/Imaging.h>

#include <cstdio>

int main() {
    kestrelyn::Imaging img;
    if (img.CreateNewImage(64, 48, 24) == 0) return 1;
    std::printf("consumer ok %dx%d\n", img.GetWidth(0), img.GetHeight(0));
    return img.GetStat() == kestrelyn::OK ? 0 : 1;
}
