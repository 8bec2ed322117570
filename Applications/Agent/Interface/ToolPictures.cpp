#include "Applications/Agent/Interface/ToolPictures.h"

#include <algorithm>
#include <optional>

#include <QCache>
#include <QDateTime>
#include <QFileInfo>
#include <QFont>
#include <QImageReader>
#include <QPainter>
#include <QPainterPath>
#include <QString>

#include "Common/Platform/Bundle.h"
#include "Common/Platform/Image.h"

namespace utilia::agent {
namespace {

constexpr int kLargestSide = 1024;

QImage clear(int side) {
    QImage image(side, side, QImage::Format_ARGB32_Premultiplied);
    image.fill(Qt::transparent);
    return image;
}

// The smallest one that is at least as large, else the largest.
std::optional<std::size_t> bestRepresentation(platform::Image& image, int side) {
    std::optional<std::size_t> best;
    std::uint32_t bestSide = 0;
    const auto wanted = static_cast<std::uint32_t>(side);
    for (std::size_t i = 0; i < image.representationCount(); ++i) {
        const auto pixels = image.bitmap(i);
        if (!pixels) continue;
        const std::uint32_t own = std::max((*pixels)->pixelsWide, (*pixels)->pixelsHigh);
        const bool isBetter =
            !best || (bestSide < wanted ? own > bestSide : own >= wanted && own < bestSide);
        if (!isBetter) continue;
        best = i;
        bestSide = own;
    }
    return best;
}

QImage recolored(QImage mask, const QColor& color) {
    QPainter painter(&mask);
    painter.setCompositionMode(QPainter::CompositionMode_SourceIn);
    painter.fillRect(mask.rect(), color);
    return mask;
}

QImage inSquare(const QImage& image, int side) {
    QImage square = clear(side);
    QPainter painter(&square);
    painter.drawImage((side - image.width()) / 2, (side - image.height()) / 2, image);
    return square;
}

QImage readBundlePicture(const std::string& bundlePath, int side) {
    const auto bundle = platform::Bundle::bundleWithPath(bundlePath);
    const auto icon = bundle ? bundle->infoDictionary().string("CFBundleIconFile") : std::nullopt;
    const auto file = icon ? bundle->pathForResource(*icon, "") : std::nullopt;
    if (!file) return {};
    QImageReader reader(QString::fromStdString(*file));
    const QSize size = reader.size();
    if (size.isEmpty()) return {};
    reader.setScaledSize(size.scaled(side, side, Qt::KeepAspectRatio));
    const QImage image = reader.read();
    return image.isNull() ? image : inSquare(image, side);
}

// Menus and lists ask again and again, and reading takes a while.
QImage bundlePicture(const ToolEntry& tool, int side) {
    if (tool.path.empty()) return {};
    constexpr int kKept = 200;
    static QCache<QString, QImage> pictures(kKept);
    const QString key = QStringLiteral("%1 %2 %3")
                            .arg(QString::number(side), QString::number(bundleDate(tool)),
                                 QString::fromStdString(tool.path));
    if (const QImage* const kept = pictures.object(key)) return *kept;
    const QImage picture = readBundlePicture(tool.path, side);
    pictures.insert(key, new QImage(picture));
    return picture;
}

QImage letterPicture(const ToolEntry& tool, int side) {
    // The same at every start: qHash has a seed.
    unsigned hash = 5381;
    for (const char character : tool.identifier)
        hash = hash * 33 + static_cast<unsigned char>(character);
    // Dark enough for a white letter, whatever the hue.
    const QColor disc = QColor::fromHsl(static_cast<int>(hash % 360), 120, 80);
    QImage image = clear(side);
    QPainter painter(&image);
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    painter.setBrush(disc);
    painter.drawEllipse(QRectF(0, 0, side, side).adjusted(0.5, 0.5, -0.5, -0.5));
    QFont font;
    font.setPixelSize(std::max(side * 11 / 20, 6));
    font.setBold(true);
    painter.setFont(font);
    painter.setPen(Qt::white);
    painter.drawText(QRectF(0, 0, side, side), Qt::AlignCenter,
                     QString::fromStdString(tool.name).left(1).toUpper());
    return image;
}

// Four rounded fields in a square, one of them a disc: a box of small tools.
void drawMark(QPainter& painter, double side, const QColor& fields, const QColor& disc) {
    painter.setRenderHint(QPainter::Antialiasing);
    painter.setPen(Qt::NoPen);
    const double gap = side * 0.09;
    const double field = (side - gap) / 2;
    for (int row = 0; row < 2; ++row) {
        for (int column = 0; column < 2; ++column) {
            const QRectF place(column * (field + gap), row * (field + gap), field, field);
            const bool isDisc = row == 0 && column == 1;
            painter.setBrush(isDisc ? disc : fields);
            if (isDisc) {
                painter.drawEllipse(place);
            } else {
                painter.drawRoundedRect(place, field * 0.26, field * 0.26);
            }
        }
    }
}

}  // namespace

QImage pictureOf(platform::Image* image, int side, const QColor& color) {
    side = std::clamp(side, 1, kLargestSide);
    if (!image) return {};
    const auto index = bestRepresentation(*image, side);
    if (!index) return {};
    const auto pixels = image->bitmap(*index);
    if (!pixels || (*pixels)->rgba.empty()) return {};
    const QImage raw((*pixels)->rgba.data(), static_cast<int>((*pixels)->pixelsWide),
                     static_cast<int>((*pixels)->pixelsHigh),
                     static_cast<qsizetype>((*pixels)->pixelsWide) * 4, QImage::Format_RGBA8888);
    QImage square =
        inSquare(raw.scaled(side, side, Qt::KeepAspectRatio, Qt::SmoothTransformation), side);
    return image->isTemplate() ? recolored(std::move(square), color) : square;
}

std::int64_t bundleDate(const ToolEntry& tool) {
    if (tool.path.empty()) return 0;
    const QFileInfo info(QString::fromStdString(tool.path) + QLatin1String("/Contents/Info.plist"));
    return info.exists() ? info.lastModified().toMSecsSinceEpoch() : 0;
}

QImage pictureOf(const ToolEntry& tool, int side, const QColor& color) {
    side = std::clamp(side, 1, kLargestSide);
    QImage picture = pictureOf(tool.toolIcon.get(), side, color);
    if (picture.isNull()) picture = pictureOf(tool.menuIcon.get(), side, color);
    if (picture.isNull()) picture = bundlePicture(tool, side);
    return picture.isNull() ? letterPicture(tool, side) : picture;
}

QImage agentMark(int side, const QColor& color) {
    side = std::clamp(side, 1, kLargestSide);
    QImage image = clear(side);
    QPainter painter(&image);
    const double margin = side * 0.08;
    painter.translate(margin, margin);
    drawMark(painter, side - 2 * margin, color, color);
    return image;
}

QIcon agentIcon() {
    QIcon icon;
    for (const int side : {16, 24, 32, 48, 64, 128, 256}) {
        QImage image = clear(side);
        QPainter painter(&image);
        painter.setRenderHint(QPainter::Antialiasing);
        painter.setPen(Qt::NoPen);
        QLinearGradient ground(0, 0, 0, side);
        ground.setColorAt(0, QColor(0x3b, 0x82, 0xd6));
        ground.setColorAt(1, QColor(0x1f, 0x4f, 0x9e));
        painter.setBrush(ground);
        painter.drawRoundedRect(QRectF(0, 0, side, side), side * 0.22, side * 0.22);
        const double margin = side * 0.21;
        painter.translate(margin, margin);
        drawMark(painter, side - 2 * margin, Qt::white, QColor(0xff, 0xd1, 0x66));
        painter.end();
        icon.addPixmap(QPixmap::fromImage(image));
    }
    return icon;
}

}  // namespace utilia::agent
