#include "monitor/JoinCodeWindow.h"

#include <QLabel>
#include <QPainter>
#include <QPixmap>
#include <QVBoxLayout>

#include "JoinCode.h"

namespace pointlane {

JoinCodeWindow::JoinCodeWindow(const QString& link, QWidget* parent)
    : QWidget(parent), code_(new QLabel(this)), text_(new QLabel(this)) {
    setWindowTitle(QString::fromLatin1(kTitle));
    auto* layout = new QVBoxLayout(this);
    code_->setAlignment(Qt::AlignCenter);
    text_->setAlignment(Qt::AlignCenter);
    text_->setTextInteractionFlags(Qt::TextSelectableByMouse);
    QFont font = text_->font();
    font.setPointSizeF(font.pointSizeF() * 1.6);
    text_->setFont(font);
    layout->addWidget(code_);
    layout->addWidget(text_);
    setLink(link);
}

void JoinCodeWindow::setLink(const QString& link) {
    link_ = link;
    const QImage image = codeImage(link);
    code_->setPixmap(QPixmap::fromImage(image));
    code_->setAccessibleName(QStringLiteral("QR code of the join link"));
    text_->setText(link.isEmpty() ? QStringLiteral("The web table is not running.") : link);
}

QImage JoinCodeWindow::codeImage(const QString& link, int modulePixels) {
    const auto code = JoinCode::of(link.toStdString());
    if (!code) {
        return {};
    }
    const int side = (code->size() + 2 * JoinCode::kQuietZone) * modulePixels;
    QImage image(side, side, QImage::Format_RGB32);
    image.fill(Qt::white);
    QPainter painter(&image);
    for (int y = 0; y < code->size(); ++y) {
        for (int x = 0; x < code->size(); ++x) {
            if (code->dark(x, y)) {
                painter.fillRect((x + JoinCode::kQuietZone) * modulePixels,
                                 (y + JoinCode::kQuietZone) * modulePixels, modulePixels,
                                 modulePixels, Qt::black);
            }
        }
    }
    return image;
}

}  // namespace pointlane
