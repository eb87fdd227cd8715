#include "host/HostImage.h"

#include "imagefile/Ifl.h"

#include <QFileInfo>
#include <cstring>

HostImage::HostImage(const QString& path) : m_path(path) {
    IflLoadParams params;
    iflGetDefaultLoadParams(params);
    params.flags |= IFL_LOAD_HEADER_ONLY;
    IflBitmap* header = nullptr;
    IflFileInformation information;
    m_headerError = iflLoadBitmap(path.toLocal8Bit().constData(), &header, params, &information);
    const IflBitmapPtr owned(header);
    if (m_headerError != 0 || !header)
        return;
    m_width = header->width;
    m_height = header->height;
    m_channels = header->componentsPerPixel;
    m_bits = header->bitsPerComponent;
    m_formatIndex = information.formatIndex;
}

HostImage::~HostImage() = default;

QString HostImage::name() const { return QFileInfo(m_path).fileName(); }

bool HostImage::forcesTiff() const {
    if (m_headerError != 0)
        return false; // the run fails on reading the file; the name keeps its suffix
    return m_formatIndex < 0 || !iflFormatWrites(m_formatIndex, m_bits, m_channels);
}

void HostImage::decode(ZImage& target) const {
    RaiseIflError(m_headerError, m_path, Z_LOCATION);
    IflLoadParams params;
    iflGetDefaultLoadParams(params);
    IflBitmap* loaded = nullptr;
    IflFileInformation information;
    RaiseIflError(iflLoadBitmap(m_path.toLocal8Bit().constData(), &loaded, params, &information),
                  m_path, Z_LOCATION);
    const IflBitmapPtr bitmap(loaded);
    Z_CHECK(bitmap && bitmap->data, Z_INVALID_BITMAP);
    target.Create(bitmap->width, bitmap->height, bitmap->type, bitmap->bitsPerComponent, false);
    const std::size_t rowBytes =
        static_cast<std::size_t>(bitmap->width) * static_cast<std::size_t>(bitmap->bytesPerPixel);
    for (int y = 0; y < bitmap->height; ++y)
        std::memcpy(target.PixelAt(0, y),
                    bitmap->data + static_cast<std::ptrdiff_t>(y) * bitmap->bytesPerLine, rowBytes);
}

ZImage* HostImage::acquireImage(int /*mode*/) {
    if (!m_pixels) {
        auto pixels = std::make_unique<ZImage>();
        decode(*pixels);
        m_pixels = std::move(pixels);
    }
    return m_pixels.get();
}

void HostImage::releaseImage(int /*mode*/) { m_pixels.reset(); }

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

void HostImage::releaseScaledImage(int /*width*/, int /*height*/, int /*mode*/) { m_scaled.reset(); }
