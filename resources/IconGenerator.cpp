// Draws the plug-in's pictures at build time, so the repository holds their
// recipe rather than binary files: the before-and-after icon (256 x 128) and
// the twelve frames of the wait animation (64 x 64), all 8-bit RGBA PNG.
//
//   zhaze-icons OUTPUT_DIRECTORY
#include <QColor>
#include <QDir>
#include <QImage>
#include <QLinearGradient>
#include <QPainter>
#include <QPainterPath>
#include <QPolygonF>
#include <cmath>
#include <cstdio>

namespace {

// A landscape of sky, two mountain ridges and a meadow.
void drawLandscape(QPainter& p, const QRectF& r) {
    QLinearGradient sky(r.topLeft(), r.bottomLeft());
    sky.setColorAt(0.0, QColor(40, 110, 200));
    sky.setColorAt(0.6, QColor(150, 200, 240));
    p.fillRect(r, sky);

    const double w = r.width(), h = r.height(), x0 = r.left(), y0 = r.top();
    QPolygonF far{QPointF(x0, y0 + 0.62 * h),
                  QPointF(x0 + 0.18 * w, y0 + 0.35 * h),
                  QPointF(x0 + 0.33 * w, y0 + 0.48 * h),
                  QPointF(x0 + 0.55 * w, y0 + 0.22 * h),
                  QPointF(x0 + 0.78 * w, y0 + 0.45 * h),
                  QPointF(x0 + w, y0 + 0.30 * h),
                  QPointF(x0 + w, y0 + h),
                  QPointF(x0, y0 + h)};
    p.setPen(Qt::NoPen);
    p.setBrush(QColor(70, 90, 120));
    p.drawPolygon(far);
    QPolygonF near{QPointF(x0, y0 + 0.78 * h),
                   QPointF(x0 + 0.25 * w, y0 + 0.58 * h),
                   QPointF(x0 + 0.50 * w, y0 + 0.72 * h),
                   QPointF(x0 + 0.72 * w, y0 + 0.55 * h),
                   QPointF(x0 + w, y0 + 0.70 * h),
                   QPointF(x0 + w, y0 + h),
                   QPointF(x0, y0 + h)};
    p.setBrush(QColor(40, 100, 50));
    p.drawPolygon(near);
    p.setBrush(QColor(90, 150, 60));
    p.drawRect(QRectF(x0, y0 + 0.86 * h, w, 0.14 * h));
}

bool writeBeforeAfter(const QDir& dir) {
    QImage image(256, 128, QImage::Format_RGBA8888);
    image.fill(Qt::transparent);
    QPainter p(&image);
    p.setRenderHint(QPainter::Antialiasing);
    QPainterPath frame;
    frame.addRoundedRect(QRectF(0.5, 0.5, 255, 127), 10, 10);
    p.setClipPath(frame);
    drawLandscape(p, QRectF(0, 0, 256, 128));
    // The left half as the camera saw it: a veil of light over everything,
    // thicker with distance (towards the top of the picture).
    QLinearGradient veil(QPointF(0, 0), QPointF(0, 128));
    veil.setColorAt(0.0, QColor(235, 238, 240, 215));
    veil.setColorAt(1.0, QColor(235, 238, 240, 110));
    p.fillRect(QRectF(0, 0, 128, 128), veil);
    p.setClipping(false);
    p.setPen(QPen(QColor(255, 255, 255), 2));
    p.drawLine(QPointF(128, 0), QPointF(128, 128));
    p.setPen(QPen(QColor(30, 30, 30, 160), 1));
    p.setBrush(Qt::NoBrush);
    p.drawPath(frame);
    p.end();
    return image.save(dir.filePath(QStringLiteral("ZHazeBeforeAfter.png")), "PNG");
}

bool writeWaitFrames(const QDir& dir) {
    constexpr int dots = 12;
    for (int frame = 0; frame < dots; ++frame) {
        QImage image(64, 64, QImage::Format_RGBA8888);
        image.fill(Qt::transparent);
        QPainter p(&image);
        p.setRenderHint(QPainter::Antialiasing);
        p.setPen(Qt::NoPen);
        for (int i = 0; i < dots; ++i) {
            // The bright dot moves one step a frame; the others fade behind it.
            const int age = (frame - i + dots) % dots;
            const double angle = 2.0 * M_PI * i / dots - M_PI / 2.0;
            const QPointF centre(32.0 + 22.0 * std::cos(angle), 32.0 + 22.0 * std::sin(angle));
            p.setBrush(QColor(60, 120, 200, 255 - age * 18));
            const double radius = 5.0 - age * 0.2;
            p.drawEllipse(centre, radius, radius);
        }
        p.end();
        const QString name =
            QStringLiteral("iconwait_%1.png").arg(frame + 1, 2, 10, QLatin1Char('0'));
        if (!image.save(dir.filePath(name), "PNG")) return false;
    }
    return true;
}

} // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: zhaze-icons OUTPUT_DIRECTORY\n");
        return 2;
    }
    const QDir dir(QString::fromLocal8Bit(argv[1]));
    if (!QDir().mkpath(dir.path()) || !writeBeforeAfter(dir) || !writeWaitFrames(dir)) {
        std::fprintf(stderr, "zhaze-icons: cannot write into %s\n", argv[1]);
        return 1;
    }
    return 0;
}
