#include "host/HostImage.h"

#include "ZImage/ZFileName.h"
#include "imagefile/Ifl.h"

#include <QFileInfo>

HostImage::HostImage(const QString& path) : m_path(path) {
    IflLoadParams params;
    iflGetDefaultLoadParams(params);
    params.flags |= IFL_LOAD_HEADER_ONLY;
    IflBitmap* header = nullptr;
    IflFileInformation information;
    m_headerError =
        iflLoadBitmap(ZFileName::encode(path).constData(), &header, params, &information);
    const IflBitmapPtr owned(header);
    m_headerReason = QString::fromStdString(information.report.detail);
    if (m_headerError != 0 || !header) return;
    m_width = header->width;
    m_height = header->height;
    m_channels = header->componentsPerPixel;
    m_bits = header->bitsPerComponent;
    m_formatIndex = information.formatIndex;
}

HostImage::~HostImage() = default;

QString HostImage::name() const {
    return QFileInfo(m_path).fileName();
}

bool HostImage::forcesTiff() const {
    if (m_headerError != 0)
        return false; // the run fails on reading the file; the name keeps its suffix
    return m_formatIndex < 0 || !iflFormatWrites(m_formatIndex, m_bits, m_channels);
}

void HostImage::decode(ZImage& target) const {
    RaiseIflError(m_headerError, m_path, Z_LOCATION, m_headerReason);
    target.Load(m_path);
}

ZImage* HostImage::acquireImage(int /*mode*/) {
    if (!m_pixels) {
        auto pixels = std::make_unique<ZImage>();
        decode(*pixels);
        m_pixels = std::move(pixels);
    }
    return m_pixels.get();
}

void HostImage::releaseImage(int /*mode*/) {
    m_pixels.reset();
}

ZImage* HostImage::scaledImage(int width, int height, int /*mode*/) {
    if (!m_scaled || m_scaled->Width() != width || m_scaled->Height() != height) {
        ZImage full;
        decode(full);
        auto scaled = std::make_unique<ZImage>();
        full.ResizeTo(*scaled, width, height);
        m_scaled = std::move(scaled);
    }
    return m_scaled.get();
}

void HostImage::releaseScaledImage(int /*width*/, int /*height*/, int /*mode*/) {
    m_scaled.reset();
}
