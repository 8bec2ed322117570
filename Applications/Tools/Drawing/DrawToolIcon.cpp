// draw-tool-icon NAME FILE: writes the icon of a tool as PNG, for its bundle and the desktop. The build runs it, so that
// the icon is drawn by what draws it while the tool runs.

#include <cstdio>
#include <map>
#include <string>

#include <QImage>

#include "Applications/Tools/KeepAwake/CupPicture.h"
#include "Applications/Tools/MoonPhase/MoonPicture.h"
#include "Applications/Tools/ScreenCapture/ViewfinderPicture.h"
#include "Applications/Tools/Timer/StopwatchPicture.h"

using namespace utilia::tools;

namespace {

constexpr unsigned kSide = 256;
constexpr MoonPhase kCrescent{.fraction = 0.16};

const std::map<std::string, Picture> kPictures{
    {"KeepAwake", cupIcon},
    {"MoonPhase", [](double x, double y) { return moonIcon(kCrescent, x, y); }},
    {"ScreenCapture", viewfinderIcon},
    {"Timer", stopwatchIcon},
};

}  // namespace

int main(int count, char** words) {
    const auto picture = count == 3 ? kPictures.find(words[1]) : kPictures.end();
    if (picture == kPictures.end()) {
        std::fputs("Usage: draw-tool-icon NAME FILE\n", stderr);
        return 2;
    }
    const auto bitmap = paintIcon({kSide}, picture->second)->bitmap(0);
    if (!bitmap) return 1;
    const QImage image((*bitmap)->rgba.data(), kSide, kSide, QImage::Format_RGBA8888);
    return image.save(QString::fromLocal8Bit(words[2]), "PNG") ? 0 : 1;
}
