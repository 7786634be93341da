#include "monitor/HistoryView.h"

#include <QPainter>
#include <cmath>

#include "monitor/DealTable.h"
#include "monitor/ElectionTable.h"
#include "monitor/GameTable.h"

namespace pointlane {

namespace {
// Widgets sit on whole pixels: round each edge, so neighbouring columns meet without gaps.
QRect toPixels(const QRectF& frame) {
    const int left = static_cast<int>(std::lround(frame.left()));
    const int top = static_cast<int>(std::lround(frame.top()));
    const int right = static_cast<int>(std::lround(frame.right()));
    const int bottom = static_cast<int>(std::lround(frame.bottom()));
    return {left, top, right - left, bottom - top};
}
}  // namespace

HistoryView::HistoryView(QWidget* parent)
    : QWidget(parent),
      gameTable(new GameTable(this)),
      dealTable(new DealTable(this)),
      electionTable(new ElectionTable(this)) {
    setGeometry(0, 0, 10, 10);
    // The game list made its first selection before it had a deal list to follow it, so the
    // deal and election columns stay empty until a game is chosen or the games change.
    gameTable->dealTable = dealTable;
    dealTable->electionTable = electionTable;
    updateGeometry();
}

std::array<QRectF, 3> HistoryView::columnFrames(QSizeF size) {
    const double w = size.width() / 3.0;
    const double h = size.height();
    const QRectF game(0, 0, w, h);
    const QRectF deal(game.x() + game.width(), 0, w, h);
    const QRectF election(deal.x() + deal.width() - 0.1, 0, w + 0.1, h);
    return {game, deal, election};
}

void HistoryView::updateGeometry() {
    const auto frames = columnFrames(QSizeF(size()));
    gameTable->setGeometry(toPixels(frames[0]));
    dealTable->setGeometry(toPixels(frames[1]));
    electionTable->setGeometry(toPixels(frames[2]));
}

void HistoryView::resizeEvent(QResizeEvent*) {
    updateGeometry();
}

void HistoryView::paintEvent(QPaintEvent*) {
    QPainter painter(this);
    painter.fillRect(rect(), Qt::blue);
}

}  // namespace pointlane
