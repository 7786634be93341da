#pragma once

#include <QImage>
#include <QString>
#include <QWidget>

class QLabel;

namespace pointlane {

// The tray's "Show join code" window: the join link's QR code, large enough to be scanned
// from across a room or on a shared screen, with the link under it in large selectable text
// for those who type it. A facilitator shows it at the start of a meeting; phones scan it.
//
// Main thread only.
class JoinCodeWindow final : public QWidget {
  public:
    static constexpr const char* kTitle = "Pointlane join code";
    static constexpr int kModulePixels = 8;

    explicit JoinCodeWindow(const QString& link, QWidget* parent = nullptr);

    // Shows another link (the address may have changed since the window opened).
    void setLink(const QString& link);
    QString link() const { return link_; }

    // The code of link as a black-on-white image with its quiet zone, modulePixels a module;
    // a null image when link can't be encoded.
    static QImage codeImage(const QString& link, int modulePixels = kModulePixels);

  private:
    QString link_;
    QLabel* code_;
    QLabel* text_;
};

}  // namespace pointlane
