#pragma once

#include <optional>
#include <string>
#include <vector>

namespace pointlane {

// A QR code of the join link, made with libqrencode (error correction level M): its square of
// modules, and the code as an SVG picture with the usual quiet zone of four modules.
//
// Threading: a value; thread safe as any value.
class JoinCode final {
  public:
    static constexpr int kQuietZone = 4;

    // The code of text; nothing when text can't be encoded (empty or too long for a QR code).
    static std::optional<JoinCode> of(const std::string& text);

    // Modules per side, without the quiet zone.
    int size() const { return size_; }
    bool dark(int x, int y) const {
        return modules_[static_cast<std::size_t>(y) * static_cast<std::size_t>(size_) +
                        static_cast<std::size_t>(x)];
    }
    const std::string& text() const { return text_; }

    // A standalone SVG document: a white square and one black path of one-module squares; its
    // title is the encoded text.
    std::string svg() const;

  private:
    JoinCode() = default;

    std::string text_;
    int size_ = 0;
    std::vector<bool> modules_;
};

}  // namespace pointlane
