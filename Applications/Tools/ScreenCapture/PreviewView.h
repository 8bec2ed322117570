#pragma once

#include <QImage>
#include <QPixmap>
#include <QWidget>

namespace utilia::tools {

// Shows a picture as a whole, and where the pages of its document end.
//
// Threads: the main thread.
class PreviewView final : public QWidget {
public:
    explicit PreviewView(QWidget* parent = nullptr);

    void setPicture(const QImage& picture);
    // In pixels of the picture; 0 for no pages.
    void setPageHeight(int pageHeight);

    QSize sizeHint() const override { return {640, 400}; }

protected:
    void paintEvent(QPaintEvent* event) override;

private:
    QRect placeOfPicture() const;

    QImage picture_;
    QPixmap scaled_;  // as it was last painted
    int pageHeight_ = 0;
};

}  // namespace utilia::tools
