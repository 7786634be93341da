#include "JoinCode.h"

#include <qrencode.h>

#include <memory>

namespace pointlane {

namespace {

std::string escaped(const std::string& text) {
    std::string out;
    for (const char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            case '"':
                out += "&quot;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

}  // namespace

std::optional<JoinCode> JoinCode::of(const std::string& text) {
    if (text.empty()) {
        return std::nullopt;
    }
    const std::unique_ptr<QRcode, decltype(&QRcode_free)> code(
        QRcode_encodeString8bit(text.c_str(), 0, QR_ECLEVEL_M), &QRcode_free);
    if (!code || code->width <= 0) {
        return std::nullopt;
    }
    JoinCode result;
    result.text_ = text;
    result.size_ = code->width;
    const auto count =
        static_cast<std::size_t>(code->width) * static_cast<std::size_t>(code->width);
    result.modules_.resize(count);
    for (std::size_t i = 0; i < count; ++i) {
        // The lowest bit of each byte is the module's colour (1: dark).
        result.modules_[i] = (code->data[i] & 1) != 0;
    }
    return result;
}

std::string JoinCode::svg() const {
    const int side = size_ + 2 * kQuietZone;
    std::string path;
    for (int y = 0; y < size_; ++y) {
        for (int x = 0; x < size_; ++x) {
            if (dark(x, y)) {
                path += 'M' + std::to_string(x + kQuietZone) + ' ' +
                        std::to_string(y + kQuietZone) + "h1v1h-1z";
            }
        }
    }
    const std::string box = std::to_string(side);
    return "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
           "<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 " +
           box + ' ' + box + "\" width=\"" + std::to_string(side * 8) + "\" height=\"" +
           std::to_string(side * 8) + "\" shape-rendering=\"crispEdges\" role=\"img\">\n<title>" +
           escaped(text_) + "</title>\n<rect width=\"" + box + "\" height=\"" + box +
           "\" fill=\"#ffffff\"/>\n<path fill=\"#000000\" d=\"" + path + "\"/>\n</svg>\n";
}

}  // namespace pointlane
