#include "Common/Platform/Linux/Modules/Export/PdfWriter.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <thread>
#include <utility>

// The objects of a document are written in one order, whatever finishes first: what is to be
// written waits in a queue, and only its head is ever written. Pages are begun and ended one at a
// time; what their pictures are compressed to may not be there yet when the next page begins, but
// never more of it than keeps the threads busy.
//
// So a picture costs the memory of a few bands besides its document, and its bytes do not depend
// on how many threads there were.

namespace utilia::platform::pdf {
namespace {

// Of predicted rows. Smaller bands fit better into a processor's cache, larger ones compress better
// by less than they cost in memory.
constexpr std::size_t kBandBytes = 512 * 1024;
// More do not gain what they cost: the others are held up by what one thread has to do.
constexpr unsigned kUsualThreads = 4;
constexpr unsigned kMostThreads = 64;
// More than a document's own frame; less is not worth asking for beforehand.
constexpr std::uint64_t kLeastRoom = 64 * 1024;
// Bands that each thread may be ahead.
constexpr std::size_t kBandsAhead = 2;

unsigned threadsFor(const UtiliaExportPDFOptions& options) {
    if (options.maximumThreads > 0) return std::min(options.maximumThreads, kMostThreads);
    return std::clamp(std::thread::hardware_concurrency(), 1u, kUsualThreads);
}

bool isUsable(const UtiliaExportRect& rectangle) {
    return std::isfinite(rectangle.x) && std::isfinite(rectangle.y) &&
           std::isfinite(rectangle.width) && std::isfinite(rectangle.height) &&
           rectangle.width > 0 && rectangle.height > 0;
}

void appendStreamEnd(std::string& text, std::uint64_t length) {
    text += " /Length ";
    appendNumber(text, length);
    text += " >>\nstream\n";
}

constexpr std::string_view kEndOfStream = "\nendstream";
// Deflate with a window of 32 KiB, in the format that PDF wants (RFC 1950).
constexpr std::array<std::uint8_t, 2> kZlibHeader = {0x78, 0x9C};
constexpr std::size_t kZlibFrame = 2 + 4;

std::array<std::uint8_t, 4> bigEndian(std::uint32_t number) {
    return {static_cast<std::uint8_t>(number >> 24), static_cast<std::uint8_t>(number >> 16),
            static_cast<std::uint8_t>(number >> 8), static_cast<std::uint8_t>(number)};
}

}  // namespace

PdfWriter::PdfWriter(const UtiliaExportSink& sink, const UtiliaExportPDFOptions& options)
    : sink_(sink), options_(options), document_(sink), pool_(threadsFor(options)) {}

PdfWriter::~PdfWriter() = default;

bool PdfWriter::fail(const char* reason) {
    if (!reason_) reason_ = reason;
    return false;
}

bool PdfWriter::sinkGaveUp() { return fail("the document cannot be stored"); }

bool PdfWriter::begin() {
    if (isBegun_) return true;
    isBegun_ = true;
    catalogue_ = document_.newObject();
    pageTree_ = document_.newObject();
    // What pictures take is not known; most take less than a byte for each pixel. Room that is not
    // written to costs nothing but addresses; where these are scarce, less of it is asked for.
    std::uint64_t room = options_.pixelsExpected;
    while (room > kLeastRoom && !sink_.expect(sink_.context, static_cast<std::size_t>(room)))
        room /= 2;
    return document_.writeHeader() || sinkGaveUp();
}

bool PdfWriter::beginPage(const UtiliaExportRect& mediaBox) {
    if (reason_) return false;
    if (isClosed_ || page_) return fail("a page is begun in another one, or after the end");
    if (!isUsable(mediaBox)) return fail("the page has no size");
    if (!begin()) return false;
    page_ = std::make_unique<Page>();
    page_->mediaBox = mediaBox;
    return true;
}

bool PdfWriter::drawImage(const UtiliaExportPixels& pixels, const UtiliaExportRect& rectangle) {
    if (reason_) return false;
    if (!page_) return fail("a picture is drawn on no page");
    if (!pixels.rgba || pixels.pixelsWide == 0 || pixels.pixelsHigh == 0 || !isUsable(rectangle))
        return fail("the picture has no size");

    const PixelTraits traits = traitsOf(pixels);
    const std::uint32_t profile = profileObject(pixels);
    if (reason_) return false;
    // A profile of class RGB says nothing about grey, and one of grey nothing about RGB.
    const bool isInGrey = profile == 0 ? traits.isGrey : pixels.isGrey;
    const Plane plane = isInGrey ? Plane::Grey : Plane::RGB;
    const std::uint32_t object = document_.newObject();
    const std::uint32_t mask = traits.isOpaque ? 0 : document_.newObject();

    std::string dictionary = " /ColorSpace ";
    if (profile != 0) {
        dictionary += "[/ICCBased ";
        appendReference(dictionary, profile);
        dictionary += ']';
    } else {
        dictionary += plane == Plane::Grey ? "/DeviceGray" : "/DeviceRGB";
    }
    if (mask != 0) {
        dictionary += " /SMask ";
        appendReference(dictionary, mask);
        page_->hasTransparency = true;
    }
    page_->images.push_back({object, rectangle});
    const double maskShare = mask == 0 ? 0.0 : plane == Plane::Grey ? 0.5 : 0.25;
    return addPicture(pixels, plane, object, std::move(dictionary), 1 - maskShare) &&
           (mask == 0 ||
            addPicture(pixels, Plane::Alpha, mask, " /ColorSpace /DeviceGray", maskShare));
}

// The object of the pixels' profile, which is written unless it is that of the picture before; 0
// for none.
std::uint32_t PdfWriter::profileObject(const UtiliaExportPixels& pixels) {
    if (!pixels.colourProfile || pixels.colourProfileSize == 0) return 0;
    const bool isSame =
        profileObject_ != 0 && std::equal(profile_.begin(), profile_.end(), pixels.colourProfile,
                                          pixels.colourProfile + pixels.colourProfileSize);
    if (isSame) return profileObject_;
    profile_.assign(pixels.colourProfile, pixels.colourProfile + pixels.colourProfileSize);
    const auto compressed = BandCompressor().compress(profile_.data(), profile_.size(), true);
    if (!compressed) return fail("the colour profile cannot be compressed"), 0;
    std::string content =
        pixels.isGrey ? "<< /N 1 /Alternate /DeviceGray" : "<< /N 3 /Alternate /DeviceRGB";
    content += " /Filter /FlateDecode";
    appendStreamEnd(content, compressed->deflated.size() + kZlibFrame);
    const auto append = [&content](const auto& bytes) {
        content.append(reinterpret_cast<const char*>(bytes.data()), bytes.size());
    };
    append(kZlibHeader);
    append(compressed->deflated);
    append(bigEndian(compressed->checksum));
    content += kEndOfStream;
    profileObject_ = document_.newObject();
    return addObject(profileObject_, std::move(content)) ? profileObject_ : 0;
}

bool PdfWriter::addPicture(const UtiliaExportPixels& pixels, Plane plane, std::uint32_t object,
                           std::string dictionary, double share) {
    const std::size_t rowBytes = predictedRowBytes(plane, pixels.pixelsWide);
    const std::size_t rowsThatFit = std::max<std::size_t>(1, kBandBytes / rowBytes);
    const std::size_t bands = (pixels.pixelsHigh + rowsThatFit - 1) / rowsThatFit;
    const std::size_t rowsOfBand = (pixels.pixelsHigh + bands - 1) / bands;

    const auto stream = std::make_shared<Stream>();
    stream->object = object;
    stream->lengthObject = rowsOfBand < pixels.pixelsHigh ? document_.newObject() : 0;
    stream->pixelsPerRow = share * pixels.pixelsWide;
    std::string& text = stream->dictionary;
    text = "<< /Type /XObject /Subtype /Image /Width ";
    appendNumber(text, std::uint64_t{pixels.pixelsWide});
    text += " /Height ";
    appendNumber(text, std::uint64_t{pixels.pixelsHigh});
    text += " /BitsPerComponent 8" + dictionary;
    text += " /Filter /FlateDecode /DecodeParms << /Predictor 15 /Colors ";
    appendNumber(text, std::uint64_t{samplesOf(plane)});
    text += " /BitsPerComponent 8 /Columns ";
    appendNumber(text, std::uint64_t{pixels.pixelsWide});
    text += " >>";

    for (std::size_t y = 0; y < pixels.pixelsHigh; y += rowsOfBand) {
        const auto rows = static_cast<std::uint32_t>(std::min(rowsOfBand, pixels.pixelsHigh - y));
        const auto job = std::make_shared<BandJob>();
        job->band = {plane, pixels.rgba + y * pixels.pixelsWide * 4, pixels.pixelsWide, rows,
                     y + rows == pixels.pixelsHigh};
        pieces_.push_back({0, {}, stream, job});
        ++bandsUnderWay_;
        pool_.add(job);
        if (!writeWhatIsDone()) return false;
    }
    return true;
}

bool PdfWriter::addObject(std::uint32_t object, std::string content) {
    pieces_.push_back({object, std::move(content), nullptr, nullptr});
    return writeWhatIsDone();
}

bool PdfWriter::endPage() {
    if (reason_) return false;
    if (!page_) return fail("no page is begun");
    const std::unique_ptr<Page> page = std::move(page_);

    std::string drawing;
    std::string names;
    const auto appendSpaced = [](std::string& text, double number) {
        appendNumber(text, number);
        text += ' ';
    };
    for (const DrawnImage& image : page->images) {
        std::string name = "/Im";
        appendNumber(name, std::uint64_t{image.object});
        drawing += "q ";
        appendSpaced(drawing, image.rectangle.width);
        drawing += "0 0 ";
        appendSpaced(drawing, image.rectangle.height);
        appendSpaced(drawing, image.rectangle.x);
        appendSpaced(drawing, image.rectangle.y);
        drawing += "cm " + name + " Do Q\n";
        names += name + ' ';
        appendReference(names, image.object);
        names += ' ';
    }
    const std::uint32_t contents = document_.newObject();
    std::string content = "<<";
    appendStreamEnd(content, drawing.size());
    content += drawing;
    content += kEndOfStream;
    if (!addObject(contents, std::move(content))) return false;

    const std::uint32_t object = document_.newObject();
    std::string text = "<< /Type /Page /Parent ";
    appendReference(text, pageTree_);
    text += " /MediaBox [";
    appendSpaced(text, page->mediaBox.x);
    appendSpaced(text, page->mediaBox.y);
    appendSpaced(text, page->mediaBox.x + page->mediaBox.width);
    appendNumber(text, page->mediaBox.y + page->mediaBox.height);
    text += "] /Resources << /XObject << " + names + ">> >> /Contents ";
    appendReference(text, contents);
    // Without it, colours may be mixed as a printer's inks.
    if (page->hasTransparency)
        text += " /Group << /Type /Group /S /Transparency /I true /CS /DeviceRGB >>";
    text += " >>";
    pages_.push_back(object);
    return addObject(object, std::move(text));
}

bool PdfWriter::close() {
    if (reason_) return false;
    if (page_ || pages_.empty() || isClosed_) return fail("the document has no last page");
    isClosed_ = true;
    while (!pieces_.empty()) {
        if (!writeOldest()) return false;
    }
    std::string text = "<< /Type /Pages /Count ";
    appendNumber(text, std::uint64_t{pages_.size()});
    text += " /Kids [";
    for (const std::uint32_t page : pages_) {
        appendReference(text, page);
        text += ' ';
    }
    text.back() = ']';
    text += " >>";
    if (!document_.writeObject(pageTree_, text)) return sinkGaveUp();
    text = "<< /Type /Catalog /Pages ";
    appendReference(text, pageTree_);
    text += " >>";
    return (document_.writeObject(catalogue_, text) && document_.finish(catalogue_)) ||
           sinkGaveUp();
}

bool PdfWriter::writeWhatIsDone() {
    while (!pieces_.empty()) {
        const Piece& oldest = pieces_.front();
        const bool isEnough = bandsUnderWay_ <= kBandsAhead * pool_.threads();
        if (oldest.job && isEnough && !pool_.isDone(*oldest.job)) return true;
        if (!writeOldest()) return false;
    }
    return true;
}

bool PdfWriter::writeOldest() {
    const Piece piece = std::move(pieces_.front());
    pieces_.pop_front();
    if (!piece.job) return document_.writeObject(piece.object, piece.content) || sinkGaveUp();
    --bandsUnderWay_;
    switch (pool_.finish(*piece.job)) {
    case BandJob::State::Done:
        break;
    case BandJob::State::OutOfMemory:
        return fail("not enough memory");
    default:
        return fail("the picture cannot be compressed");
    }
    return (writeBand(*piece.stream, *piece.job) || sinkGaveUp()) &&
           tellProgress(piece.stream->pixelsPerRow * piece.job->band.rows);
}

bool PdfWriter::writeBand(Stream& stream, const BandJob& job) {
    const CompressedBand& band = job.result;
    if (!stream.isBegun) {
        stream.isBegun = true;
        std::string text = std::move(stream.dictionary);
        if (stream.lengthObject == 0) {
            appendStreamEnd(text, band.deflated.size() + kZlibFrame);
        } else {
            text += " /Length ";
            appendReference(text, stream.lengthObject);
            text += " >>\nstream\n";
        }
        if (!document_.beginObject(stream.object) || !document_.write(text) ||
            !document_.write(kZlibHeader.data(), kZlibHeader.size())) {
            return false;
        }
    }
    stream.length += band.deflated.size();
    stream.checksum = combinedChecksum(stream.checksum, band.checksum, band.size);
    if (!document_.write(band.deflated.data(), band.deflated.size())) return false;
    if (!job.band.isLast) return true;

    const auto checksum = bigEndian(stream.checksum);
    if (!document_.write(checksum.data(), checksum.size()) || !document_.write(kEndOfStream) ||
        !document_.write("\nendobj\n")) {
        return false;
    }
    if (stream.lengthObject == 0) return true;
    std::string length;
    appendNumber(length, stream.length + kZlibFrame);
    return document_.writeObject(stream.lengthObject, length);
}

bool PdfWriter::tellProgress(double pixels) {
    pixelsDone_ += pixels;
    const double share = options_.pixelsExpected == 0
                             ? 0
                             : pixelsDone_ / static_cast<double>(options_.pixelsExpected);
    return sink_.progress(sink_.context, std::min(share, 1.0)) || fail("cancelled");
}

}  // namespace utilia::platform::pdf
