#include "Tests/Support/PdfReader.h"

#include <algorithm>
#include <charconv>
#include <cstdlib>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <variant>

#include <zlib.h>

namespace utilia::test {
namespace {

void require(bool holds, const std::string& what) {
    if (!holds) throw PdfReaderError(what);
}

struct Object;
using List = std::vector<Object>;
using Names = std::map<std::string, Object, std::less<>>;
struct Reference {
    std::size_t object;
};
struct Name {
    std::string text;
};
struct Object {
    std::variant<std::monostate, double, bool, Name, Reference, List, Names> value;
    std::string_view stream = {};

    double number() const {
        require(std::holds_alternative<double>(value), "not a number");
        return std::get<double>(value);
    }
    std::size_t whole() const {
        const double found = number();
        require(found >= 0 && found == static_cast<double>(static_cast<std::size_t>(found)),
                "not a whole number");
        return static_cast<std::size_t>(found);
    }
    const std::string& name() const {
        require(std::holds_alternative<Name>(value), "not a name");
        return std::get<Name>(value).text;
    }
    const List& list() const {
        require(std::holds_alternative<List>(value), "not an array");
        return std::get<List>(value);
    }
    const Names& names() const {
        require(std::holds_alternative<Names>(value), "not a dictionary");
        return std::get<Names>(value);
    }
    const Object* find(std::string_view key) const {
        const auto found = names().find(key);
        return found == names().end() ? nullptr : &found->second;
    }
    const Object& at(std::string_view key) const {
        const Object* found = find(key);
        require(found != nullptr, "no " + std::string(key));
        return *found;
    }
    void requireKeys(std::initializer_list<std::string_view> known) const {
        for (const auto& [key, ignored] : names()) {
            require(std::find(known.begin(), known.end(), key) != known.end(),
                    "unexpected key " + key);
        }
    }
};

bool isBlank(char c) { return c == ' ' || c == '\n' || c == '\r' || c == '\t'; }
bool isDelimiter(char c) {
    return isBlank(c) || std::string_view("/<>[]()%").find(c) != std::string_view::npos;
}

class Syntax final {
public:
    Syntax(std::string_view text, std::size_t at) : text_(text), at_(at) {}

    std::size_t at() const { return at_; }
    void skipBlanks() {
        while (at_ < text_.size() && isBlank(text_[at_])) ++at_;
    }
    bool accept(std::string_view word) {
        skipBlanks();
        if (text_.substr(at_, word.size()) != word) return false;
        at_ += word.size();
        return true;
    }
    void expect(std::string_view word) {
        require(accept(word), "no " + std::string(word) + " at " + std::to_string(at_));
    }
    std::string word() {
        const std::size_t start = at_;
        while (at_ < text_.size() && !isDelimiter(text_[at_])) ++at_;
        require(at_ > start, "nothing at " + std::to_string(start));
        return std::string(text_.substr(start, at_ - start));
    }
    double number() {
        skipBlanks();
        const std::string found = word();
        double value = 0;
        const auto [end, error] = std::from_chars(found.data(), found.data() + found.size(), value,
                                                  std::chars_format::fixed);
        require(error == std::errc() && end == found.data() + found.size(), "no number: " + found);
        return value;
    }
    Object object() {
        if (accept("<<")) {
            Names names;
            while (!accept(">>")) {
                expect("/");
                const std::string key = word();
                require(names.emplace(key, object()).second, "twice: " + key);
            }
            return {names};
        }
        if (accept("[")) {
            List list;
            while (!accept("]")) list.push_back(object());
            return {list};
        }
        if (accept("/")) return {Name{word()}};
        if (accept("true")) return {true};
        if (accept("false")) return {false};
        const double value = number();
        const std::size_t before = at_;
        skipBlanks();
        std::size_t generation = at_;
        while (generation < text_.size() && text_[generation] == '0') ++generation;
        if (generation == at_ + 1 && text_.substr(generation, 2) == " R") {
            at_ = generation + 2;
            return {Reference{static_cast<std::size_t>(value)}};
        }
        at_ = before;
        return {value};
    }

private:
    std::string_view text_;
    std::size_t at_;
};

std::vector<std::uint8_t> inflated(std::string_view stream) {
    std::vector<std::uint8_t> out;
    z_stream state{};
    require(inflateInit(&state) == Z_OK, "inflateInit");
    const std::unique_ptr<z_stream, int (*)(z_stream*)> ending(&state, inflateEnd);
    state.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(stream.data()));
    state.avail_in = static_cast<uInt>(stream.size());
    int result = Z_OK;
    std::vector<std::uint8_t> piece(1 << 18);
    while (result == Z_OK) {
        state.next_out = piece.data();
        state.avail_out = static_cast<uInt>(piece.size());
        result = inflate(&state, Z_NO_FLUSH);
        out.insert(out.end(), piece.data(), state.next_out);
    }
    require(result == Z_STREAM_END, "damaged data");
    require(state.avail_in == 0, "more behind the data");
    return out;
}

// PNG's five filters (PNG specification, 9).
std::vector<std::uint8_t> unfiltered(const std::vector<std::uint8_t>& rows, std::size_t samples,
                                     std::size_t columns, std::size_t height) {
    const std::size_t rowBytes = samples * columns;
    require(rows.size() == (rowBytes + 1) * height, "rows of another size");
    std::vector<std::uint8_t> out(rowBytes * height);
    for (std::size_t y = 0; y < height; ++y) {
        const std::uint8_t* in = rows.data() + y * (rowBytes + 1);
        const unsigned filter = *in++;
        std::uint8_t* row = out.data() + y * rowBytes;
        const std::uint8_t* before = y == 0 ? nullptr : row - rowBytes;
        for (std::size_t x = 0; x < rowBytes; ++x) {
            const int left = x < samples ? 0 : row[x - samples];
            const int above = before ? before[x] : 0;
            const int corner = x < samples || !before ? 0 : before[x - samples];
            int guess = 0;
            switch (filter) {
            case 0:
                break;
            case 1:
                guess = left;
                break;
            case 2:
                guess = above;
                break;
            case 3:
                guess = (left + above) / 2;
                break;
            case 4: {
                const int straight = left + above - corner;
                const int toLeft = std::abs(straight - left);
                const int toAbove = std::abs(straight - above);
                const int toCorner = std::abs(straight - corner);
                guess = toLeft <= toAbove && toLeft <= toCorner ? left
                        : toAbove <= toCorner                   ? above
                                                                : corner;
                break;
            }
            default:
                require(false, "an unknown filter");
            }
            row[x] = static_cast<std::uint8_t>(in[x] + guess);
        }
    }
    return out;
}

class Document final {
public:
    explicit Document(std::span<const std::uint8_t> bytes)
        : text_(reinterpret_cast<const char*>(bytes.data()), bytes.size()) {
        readTable();
        readObjects();
    }

    std::vector<PdfPage> pages() {
        const Object& catalogue = resolved(trailer_.at("Root"));
        catalogue.requireKeys({"Type", "Pages"});
        require(catalogue.at("Type").name() == "Catalog", "no catalogue");
        const Object& tree = resolved(catalogue.at("Pages"));
        tree.requireKeys({"Type", "Count", "Kids"});
        require(tree.at("Type").name() == "Pages", "no pages");
        const List& kids = tree.at("Kids").list();
        require(tree.at("Count").whole() == kids.size() && !kids.empty(), "another count");
        std::vector<PdfPage> pages;
        for (const Object& kid : kids) pages.push_back(page(resolved(kid), tree));
        require(used_.size() == objects_.size(), "an object that nothing leads to");
        return pages;
    }

private:
    void readTable() {
        require(text_.starts_with("%PDF-1.7\n%"), "no header");
        require(text_.ends_with("\n%%EOF\n"), "no end");
        const std::size_t mark = text_.rfind("startxref\n");
        require(mark != std::string_view::npos, "no startxref");
        Syntax start(text_, mark + 10);
        tableAt_ = static_cast<std::size_t>(start.number());
        require(text_.substr(start.at()) == "\n%%EOF\n", "no end behind startxref");
        require(tableAt_ < mark && text_.substr(tableAt_, 7) == "xref\n0 ", "no table");
        Syntax table(text_, tableAt_ + 6);
        const auto count = static_cast<std::size_t>(table.number());
        std::size_t at = table.at() + 1;
        require(text_.substr(at, 20) == "0000000000 65535 f \n", "no first entry");
        for (std::size_t i = 1; i < count; ++i) {
            const std::string_view entry = text_.substr(at += 20, 20);
            require(entry.size() == 20 && entry.substr(10) == " 00000 n \n", "a broken entry");
            offsets_.push_back(
                std::strtoull(std::string(entry.substr(0, 10)).c_str(), nullptr, 10));
        }
        Syntax end(text_, at + 20);
        end.expect("trailer");
        trailer_ = end.object();
        trailer_.requireKeys({"Size", "Root"});
        require(trailer_.at("Size").whole() == count, "another size");
        end.expect("startxref");
    }

    // Objects lie one behind the other, in any order, from the header to the table.
    void readObjects() {
        std::map<std::size_t, std::size_t> byOffset;
        for (std::size_t i = 0; i < offsets_.size(); ++i)
            require(byOffset.emplace(offsets_[i], i + 1).second, "two objects at one place");
        objects_.resize(offsets_.size());
        std::size_t at = text_.find('\n', 9) + 1;
        std::vector<std::pair<std::size_t, std::size_t>> streams;  // object, where
        // The length of a stream may stand in an object behind it.
        for (const auto& [offset, number] : byOffset) {
            Syntax syntax(text_, offset);
            require(static_cast<std::size_t>(syntax.number()) == number, "another number");
            syntax.expect("0 obj\n");
            objects_[number - 1] = syntax.object();
            if (text_.substr(syntax.at(), 8) == "\nstream\n")
                streams.emplace_back(number, syntax.at() + 8);
            ends_[number] = syntax.at();
        }
        for (const auto& [number, where] : streams) {
            Object& object = objects_[number - 1];
            const std::size_t length = resolved(object.at("Length")).whole();
            require(where + length < tableAt_, "a stream without end");
            object.stream = text_.substr(where, length);
            require(text_.substr(where + length, 11) == "\nendstream\n", "another length");
            ends_[number] = where + length + 10;
        }
        for (const auto& [offset, number] : byOffset) {
            require(offset == at, "something between objects");
            require(text_.substr(ends_[number], 8) == "\nendobj\n", "an object without end");
            at = ends_[number] + 8;
        }
        require(at == tableAt_, "something before the table");
    }

    const Object& resolved(const Object& object) {
        const auto* reference = std::get_if<Reference>(&object.value);
        if (!reference) return object;
        require(reference->object >= 1 && reference->object <= objects_.size(), "no such object");
        used_.insert(reference->object);
        return objects_[reference->object - 1];
    }

    PdfPage page(const Object& from, const Object& tree) {
        from.requireKeys({"Type", "Parent", "MediaBox", "Resources", "Contents", "Group"});
        require(from.at("Type").name() == "Page", "no page");
        require(&resolved(from.at("Parent")) == &tree, "another parent");
        PdfPage page;
        const List& box = from.at("MediaBox").list();
        require(box.size() == 4, "no media box");
        for (std::size_t i = 0; i < 4; ++i) page.mediaBox[i] = box[i].number();
        if (const Object* group = from.find("Group")) {
            group->requireKeys({"Type", "S", "I", "CS"});
            page.hasGroup = group->at("S").name() == "Transparency";
        }
        from.at("Resources").requireKeys({"XObject"});
        const Object& images = from.at("Resources").at("XObject");
        const Object& contents = resolved(from.at("Contents"));
        contents.requireKeys({"Length"});
        Syntax drawing(contents.stream, 0);
        std::set<std::string> drawn;
        for (drawing.skipBlanks(); drawing.at() < contents.stream.size(); drawing.skipBlanks()) {
            drawing.expect("q ");
            std::array<double, 6> matrix;
            for (double& number : matrix) number = drawing.number();
            drawing.expect("cm /");
            const std::string name = drawing.word();
            drawing.expect("Do");
            drawing.expect("Q");
            page.images.push_back(image(resolved(images.at(name))));
            page.images.back().matrix = matrix;
            drawn.insert(name);
        }
        require(drawn.size() == images.names().size(), "an image that is not drawn");
        return page;
    }

    std::vector<std::uint8_t> samples(const Object& from, std::size_t components) {
        from.requireKeys({"Type", "Subtype", "Width", "Height", "BitsPerComponent", "ColorSpace",
                          "SMask", "Filter", "DecodeParms", "Length"});
        require(from.at("Type").name() == "XObject" && from.at("Subtype").name() == "Image" &&
                    from.at("BitsPerComponent").whole() == 8 &&
                    from.at("Filter").name() == "FlateDecode",
                "no image");
        const Object& parameters = from.at("DecodeParms");
        parameters.requireKeys({"Predictor", "Colors", "BitsPerComponent", "Columns"});
        require(parameters.at("Predictor").whole() >= 10 &&
                    parameters.at("Colors").whole() == components &&
                    parameters.at("BitsPerComponent").whole() == 8 &&
                    parameters.at("Columns").whole() == from.at("Width").whole(),
                "other predictors");
        return unfiltered(inflated(from.stream), components, from.at("Width").whole(),
                          from.at("Height").whole());
    }

    PdfImage image(const Object& from) {
        PdfImage image;
        image.width = static_cast<std::uint32_t>(from.at("Width").whole());
        image.height = static_cast<std::uint32_t>(from.at("Height").whole());
        const Object& space = from.at("ColorSpace");
        if (const auto* list = std::get_if<List>(&space.value)) {
            require(list->size() == 2 && list->at(0).name() == "ICCBased", "no profile");
            const Object& profile = resolved(list->at(1));
            profile.requireKeys({"N", "Alternate", "Filter", "Length"});
            image.isGrey = profile.at("N").whole() == 1;
            require(image.isGrey || profile.at("N").whole() == 3, "a profile of another class");
            require(profile.at("Alternate").name() == (image.isGrey ? "DeviceGray" : "DeviceRGB"),
                    "another alternate");
            image.profile = inflated(profile.stream);
            // ICC.1, 7.2: the colour space of what is described.
            const std::string_view head(reinterpret_cast<const char*>(image.profile.data()),
                                        image.profile.size());
            require(head.size() > 20 && head.substr(16, 4) == (image.isGrey ? "GRAY" : "RGB "),
                    "a profile of other colours");
        } else {
            image.isGrey = space.name() == "DeviceGray";
            require(image.isGrey || space.name() == "DeviceRGB", "an unknown colour space");
        }
        const std::size_t components = image.isGrey ? 1 : 3;
        const auto colours = samples(from, components);
        std::vector<std::uint8_t> mask;
        if (const Object* object = from.find("SMask")) {
            const Object& found = resolved(*object);
            require(found.at("ColorSpace").name() == "DeviceGray" && !found.find("SMask") &&
                        found.at("Width").whole() == image.width &&
                        found.at("Height").whole() == image.height,
                    "another mask");
            mask = samples(found, 1);
            image.hasMask = true;
        }
        const std::size_t pixels = std::size_t{image.width} * image.height;
        image.rgba.resize(pixels * 4);
        for (std::size_t i = 0; i < pixels; ++i) {
            for (std::size_t k = 0; k < 3; ++k)
                image.rgba[i * 4 + k] = colours[i * components + (image.isGrey ? 0 : k)];
            image.rgba[i * 4 + 3] = image.hasMask ? mask[i] : 255;
        }
        return image;
    }

    std::string_view text_;
    std::size_t tableAt_ = 0;
    std::vector<std::size_t> offsets_;
    std::vector<Object> objects_;
    std::map<std::size_t, std::size_t> ends_;
    std::set<std::size_t> used_;
    Object trailer_;
};

}  // namespace

std::vector<PdfPage> readPdf(std::span<const std::uint8_t> document) {
    return Document(document).pages();
}

}  // namespace utilia::test
