// HostImage: the host's view of one image file, over IFL. The header is read
// when the object is made; pixels are decoded only when asked for, and kept
// until released.
#pragma once

#include "ZImage/ZImage.h"
#include "plugin/ZIApplication.h"

#include <QString>
#include <memory>

class HostImage : public ZIHostImage {
public:
    explicit HostImage(const QString& path);
    ~HostImage() override;

    QString name() const override;
    int height() const override { return m_height; }
    int width() const override { return m_width; }
    int channelCount() const override { return m_channels; }
    int bitDepth() const override { return m_bits; }
    bool forcesTiff() const override;
    // Both throw ZException when the file cannot be decoded.
    ZImage* scaledImage(int width, int height, int mode) override;
    void releaseScaledImage(int width, int height, int mode) override;
    ZImage* acquireImage(int mode) override;
    void releaseImage(int mode) override;

    // The IFL code of reading the header; 0 when the file is readable.
    int headerError() const { return m_headerError; }

private:
    void decode(ZImage& target) const;

    QString m_path;
    int m_width = 0;
    int m_height = 0;
    int m_channels = 0;
    int m_bits = 0;
    int m_formatIndex = -1;
    int m_headerError = 0;
    QString m_headerReason; // IFL's detail when the header cannot be read
    std::unique_ptr<ZImage> m_pixels;
    std::unique_ptr<ZImage> m_scaled;
};
