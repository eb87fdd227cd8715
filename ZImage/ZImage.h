// ZImage: the one image type of the system.
//
// A thin owner around an IFL bitmap record (imagefile/IflBitmap.h), so that a
// ZImage can be handed to IFL's load and save calls as it stands. Pixels are
// interleaved (R, G, B, A in that order), rows are bytesPerLine apart, and a
// pixel's components are 8-bit or 16-bit unsigned or 32-bit float with 1.0 as
// full scale. Failures throw ZException; a function that returns succeeded.
//
// ZImage has no locks: several threads may read one image, and parallel pixel
// loops write disjoint rows of one image.
#pragma once

#include "ZImage/ZException.h"
#include "imagefile/IflBitmap.h"

#include <QtContainerFwd>
#include <cstdint>
#include <memory>
#include <span>

class QImage;
class QString;

class ZImage {
public:
    // Colour type codes of the formats the system converts between.
    static constexpr int Gray = 2;
    static constexpr int RGB = 16;
    static constexpr int RGBA = 32;
    // Resampling modes of ResizeTo; 0 picks by the scale.
    static constexpr int Bilinear = 2;
    static constexpr int Supersample = 8;

    ZImage() = default;
    ZImage(int width, int height, int typeCode, int bits, bool clear = true,
           void* externalData = nullptr, int externalStride = 0);
    ~ZImage();

    ZImage(const ZImage&) = delete;
    ZImage& operator=(const ZImage&) = delete;
    ZImage(ZImage&& other) noexcept;
    ZImage& operator=(ZImage&& other) noexcept;

    // (Re)allocates. A bitmap of the same size and format is kept without
    // allocating (and zeroed if `clear`). With `externalData` the image adopts
    // that memory, bytes per line `externalStride`, and never frees it.
    void Create(int width, int height, int typeCode, int bits, bool clear = true,
                void* externalData = nullptr, int externalStride = 0);
    void Free();
    // Deep copy; the copy always owns its pixels.
    void CopyFrom(const ZImage& other);
    // Resampled copy into `target`. interpolation 0 chooses supersampling
    // (area-weighted) when shrinking and bilinear when enlarging. Factors of
    // 0.0 are derived from the sizes. Same size: a plain CopyFrom.
    void ResizeTo(ZImage& target, int newWidth, int newHeight, int interpolation = 0,
                  double xFactor = 0.0, double yFactor = 0.0, double xShift = 0.0,
                  double yShift = 0.0) const;

    // ResizeTo (interpolation 0, factors from the sizes) of this image as
    // CopyTo would convert it to RGBA float, without holding that conversion:
    // rows are converted as the resampling reads them. Same pixels as the
    // two steps.
    void ResizeAsFloatTo(ZImage& target, int newWidth, int newHeight) const;

    // Pixel format conversion (ZImage_Copy.cpp).
    void Copy(int srcX, int srcY, int width, int height, ZImage& target, int dstX, int dstY) const;
    void CopyTo(ZImage& target, int colourType, int depth) const;
    void ToQImage(QImage& image) const;

    // Image files (ZImage_Save.cpp). Save writes the image in `format` (a name
    // or suffix in any case), with the ICC profile and metadata of
    // `metadataSource` when it is not empty; `quality` is a format-dependent
    // index, -1 for the defaults. What could not be carried over, and the
    // library's own text of a failure, are appended to `notes` if given.
    void Save(const QString& fileName, const QString& format, int quality,
              const QString& metadataSource, QStringList* notes = nullptr);
    // Decodes a picture file into this image.
    void Load(const QString& fileName);

    // Haze removal on RGBA float images (ZImageHaze.cpp, see ZImageHaze.h).
    std::unique_ptr<float[]> estimateDarkChannel(std::span<float, 3> airlight) const;
    // Replaces `map` (width x height) by its soft-matting refinement
    // (ZImageHaze_Refine.cpp); on an exception `map` is unchanged.
    void refineDarkChannel(std::span<float> map) const;
    std::unique_ptr<float[]> upsampleDarkChannel(const float* map, const ZImage& working) const;
    void applyHazeRemoval(const float* airDepthMap, std::span<const float, 3> airlight,
                          float strength);
    void upsampleAndApplyHazeRemoval(const float* map, const ZImage& working,
                                     std::span<const float, 3> airlight, float strength);

    bool IsEmpty() const { return bitmap == nullptr; }
    bool OwnsData() const { return ownsData != 0; }
    IflBitmap* Bitmap() const { return bitmap; }

    int BytesPerPixel() const {
        Z_CHECK(bitmap, Z_INVALID_BITMAP);
        return bitmap->bytesPerPixel;
    }
    int BytesPerLine() const {
        Z_CHECK(bitmap, Z_INVALID_BITMAP);
        return bitmap->bytesPerLine;
    }
    int BitsPerComponent() const {
        Z_CHECK(bitmap, Z_INVALID_BITMAP);
        return bitmap->bitsPerComponent;
    }
    int Width() const {
        Z_CHECK(bitmap, Z_INVALID_BITMAP);
        return bitmap->width;
    }
    int Height() const {
        Z_CHECK(bitmap, Z_INVALID_BITMAP);
        return bitmap->height;
    }
    int BitmapType() const {
        Z_CHECK(bitmap, Z_INVALID_BITMAP);
        return bitmap->type;
    }
    // Address of pixel (x, y); no bounds check.
    std::uint8_t* PixelAt(int x, int y) const {
        Z_CHECK(bitmap, Z_INVALID_BITMAP);
        return bitmap->data + static_cast<std::ptrdiff_t>(y) * bitmap->bytesPerLine +
               static_cast<std::ptrdiff_t>(x) * bitmap->bytesPerPixel;
    }

    // 8-bit RGB or RGBA, a photograph's usual form, which the float passes
    // read through one row conversion instead of Copy's chains.
    bool IsByteColour() const {
        return BitsPerComponent() == 8 && (bitmap->type == RGB || bitmap->type == RGBA);
    }
    // Rows y0 .. y0 + rows - 1 of a byte-colour image as RGBA floats, `stride`
    // bytes apart in `out`: the values Copy gives, alpha 1.0 where there is
    // none (ZImage_Copy.cpp).
    void ByteRowsToFloat(int y0, int rows, float* out, std::ptrdiff_t stride) const;

    // Component count of a type code, by the masks IFL uses for its wider
    // classes; 0 for a code in no class.
    static int ComponentsOfType(int typeCode);

private:
    friend class ZImageRowSave;
    void Release();

    IflBitmap* bitmap = nullptr;
    unsigned char ownsData = 1;
};

// Save for an image that is still being made (ZImage_Save.cpp): made once
// the image has its size and format, before its first row is complete; told
// in order, from one thread at a time, how many rows are complete (those are
// encoded then); finish() encodes the rest and writes the file. The file and
// the notes are those of Save, and so are the exceptions: the constructor
// throws what Save throws before encoding, finish() the failures of
// encoding and writing, rowsReady's included. Destroyed without finish(),
// it leaves no file.
struct IflSave;
class ZImageRowSave {
public:
    ZImageRowSave(ZImage& image, const QString& fileName, const QString& format, int quality,
                  const QString& metadataSource, QStringList* notes = nullptr);
    ~ZImageRowSave();
    ZImageRowSave(const ZImageRowSave&) = delete;
    ZImageRowSave& operator=(const ZImageRowSave&) = delete;

    void rowsReady(int rows) noexcept;
    void finish();

private:
    ZImage& m_image;
    const QString m_fileName;
    QStringList* m_notes;
    IflSave* m_save = nullptr;
};

// Explains a failed write of `size` bytes to fileName: throws if the folder's
// volume has less room than that, or if the file cannot be written; returns
// otherwise. Leaves no new file behind.
void CheckForDiskSpace(const QString& fileName, qint64 size, const QString& location);

// Checks made before any work on a picture (ZImage_Checks.cpp), so that a run
// that cannot end in a file fails at once rather than after the computation.
// CheckBeforeSave: `format` (a name or suffix) is one Save writes, and the
// folder of fileName exists and may be written (an existing fileName too).
void CheckBeforeSave(const QString& fileName, const QString& format, const QString& location);
// CheckForMemory: `bytes` more can be taken now, and under an address-space
// limit also the space each thread of the run reserves; `subject` names the
// file that needs them in the message.
void CheckForMemory(qint64 bytes, const QString& subject, const QString& location);
// Bytes the process may still take: the least of the system's available
// memory, its cgroup's room and its address-space limit; -1 when unknown.
qint64 AvailableMemory();
