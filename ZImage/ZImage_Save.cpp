// Image files: ZImage::Save and CheckForDiskSpace.
//
// Save hands this image's bitmap record to IFL as it stands. The source file
// named for metadata is opened for its header and metadata only, so its
// pixels are never decoded twice; it is only read, never written. A failed
// save is explained in this order: no room on the disk, then a file that
// cannot be written, then the library's code. IFL writes through a temporary
// file in the target folder, so no failure leaves a partial or empty file.
#include "ZImage/ZFileName.h"
#include "ZImage/ZImage.h"
#include "imagefile/Ifl.h"

#include <QCoreApplication>
#include <QDebug>
#include <QFileInfo>
#include <QStorageInfo>
#include <QStringList>

#include <fcntl.h>
#include <unistd.h>

namespace {

// "jpg", "tif" and "hdr" are the names people and suffixes use; IFL knows the
// formats as "jpeg", "tiff" and "hdri". Other names pass unchanged.
QString normalisedFormat(const QString& format) {
    QString name = format.toLower();
    if (name == QLatin1String("jpg")) name = QStringLiteral("jpeg");
    if (name == QLatin1String("tif")) name = QStringLiteral("tiff");
    if (name == QLatin1String("hdr")) name = QStringLiteral("hdri");
    return name;
}

// Turns a caller's quality index into the save record's words; -1 keeps the
// library's defaults.
void applyQuality(const QString& format, int quality, IflSaveParams& params) {
    if (quality == -1) return;
    if (format == QLatin1String("jpeg")) {
        params.quality = static_cast<std::uint16_t>(quality * 8 + 4);
    } else if (format == QLatin1String("png") || format == QLatin1String("hdri")) {
        params.compression = static_cast<std::uint16_t>(quality);
    } else if (format == QLatin1String("tiff")) {
        if (quality == 1)
            params.compression = 0;
        else if (quality == 2)
            params.compression = 2;
        else if (quality == 3)
            params.compression = 4;
    } else if (format == QLatin1String("exr")) {
        switch (quality) {
        case 1:
            params.compression = 0;
            break;
        case 2:
            params.compression = 1;
            break;
        case 3:
            params.compression = 2;
            break;
        case 4:
            params.compression = 3;
            break;
        case 6:
            params.compression = 5;
            break;
        case 7:
            params.compression = 6;
            break;
        case 8:
            params.compression = 7;
            break;
        default:
            params.compression = 4;
            break;
        }
    }
}

void addNotes(QStringList* notes, const IflReport& report) {
    if (!notes) return;
    for (const std::string& warning : report.warnings)
        *notes << QString::fromStdString(warning);
}

// Free bytes that the calling user may write on the volume of `folder`, or
// -1 when that cannot be known.
qint64 freeBytes(const QString& folder) {
    const QStorageInfo volume(folder);
    return volume.isValid() ? volume.bytesAvailable() : -1;
}

// Whether the file can be opened for writing, without changing it, and
// without leaving a new file behind when it did not exist.
bool canWrite(const QString& path) {
    const QByteArray name = ZFileName::encode(path);
    int fd = ::open(name.constData(), O_WRONLY | O_CLOEXEC);
    if (fd >= 0) {
        ::close(fd);
        return true;
    }
    if (errno != ENOENT) return false;
    fd = ::open(name.constData(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0) return false;
    ::close(fd);
    ::unlink(name.constData());
    return true;
}

} // namespace

void CheckForDiskSpace(const QString& fileName, qint64 size, const QString& location) {
    const QFileInfo info(fileName);
    const QString folder = info.absolutePath();
    const qint64 available = freeBytes(folder);
    qDebug("CheckForDiskSpace Disk : %lld, Asked : %lld", static_cast<long long>(available),
           static_cast<long long>(size));
    if (available != -1 && size > available)
        throw ZException(QCoreApplication::translate(
                             "ZException", "Not enough free space on \"%1\" to finish operation")
                             .arg(folder),
                         location);
    const QString path = info.absoluteFilePath();
    if (!canWrite(path))
        throw ZException(
            QCoreApplication::translate("ZException", "Cannot write into file \"%1\"").arg(path),
            location);
}

void ZImage::Save(const QString& fileName, const QString& format, int quality,
                  const QString& metadataSource, QStringList* notes) {
    ZImageRowSave save(*this, fileName, format, quality, metadataSource, notes);
    save.finish();
}

namespace {

// Explains a failed save: no room on the disk, a file that cannot be
// written, then the library's code and text.
[[noreturn]] void raiseSaveError(IflError code, const IflBitmap& bitmap, const QString& fileName,
                                 const IflReport& report, const QString& location) {
    const qint64 size = static_cast<qint64>(bitmap.bytesPerPixel) * bitmap.height *
                        static_cast<qint64>(bitmap.width);
    CheckForDiskSpace(fileName, size, location);
    RaiseIflError(code, fileName, location, QString::fromStdString(report.detail));
    Z_THROW(Z_INVALID_PARAMETER); // RaiseIflError returns for IFL_OK only
}

} // namespace

ZImageRowSave::ZImageRowSave(ZImage& image, const QString& fileName, const QString& format,
                             int quality, const QString& metadataSource, QStringList* notes)
    : m_image(image), m_fileName(fileName), m_notes(notes) {
    IflBitmap* const bitmap = image.bitmap;
    Z_CHECK(bitmap, Z_INVALID_BITMAP);
    const int bits = bitmap->bitsPerComponent;
    Z_CHECK(bits == 8 || bits == 16 || bits == 32, Z_INVALID_BITMAP);
    Z_CHECK(!fileName.isEmpty(), Z_INVALID_PARAMETER);
    Z_CHECK(!format.isEmpty(), Z_INVALID_PARAMETER);

    const QString name = normalisedFormat(format);
    IflSaveParams save;
    iflGetDefaultSaveParams(save);
    applyQuality(name, quality, save);

    if (!metadataSource.isEmpty()) {
        IflLoadParams load;
        iflGetDefaultLoadParams(load);
        load.flags |= IFL_LOAD_METADATA | IFL_LOAD_HEADER_ONLY;
        IflBitmap* loaded = nullptr;
        IflFileInformation information;
        const IflError code = iflLoadBitmap(ZFileName::encode(metadataSource).constData(), &loaded,
                                            load, &information);
        const IflBitmapPtr source(loaded);
        addNotes(notes, information.report);
        RaiseIflError(code, metadataSource, Z_LOCATION,
                      QString::fromStdString(information.report.detail));

        // The output keeps the source's storage where the format allows:
        // half floats stay half, associated alpha stays associated.
        if (information.halfFloat) save.flags |= IFL_SAVE_HALF_FLOAT;
        if (information.associatedAlpha) save.flags |= IFL_SAVE_ASSOCIATED_ALPHA;

        if (iflBitmapHasICCProfile(source.get())) {
            iflBitmapCopyICCProfile(source.get(), bitmap);
            save.flags |= IFL_SAVE_ICC_PROFILE;
        }
        if (iflBitmapHasIPTC(source.get())) {
            IflIptc* handle = nullptr;
            iflBitmapGetIPTC(source.get(), &handle);
            const IflIptcPtr iptc(handle);
            iflBitmapSetIPTC(bitmap, iptc.get());
        }
        if (iflBitmapHasEXIF(source.get())) {
            IflExif* handle = nullptr;
            iflBitmapGetEXIF2(source.get(), &handle);
            const IflExifPtr exif(handle);
            iflBitmapSetEXIF2(bitmap, exif.get());
        }
        if (iflBitmapHasXMP(source.get())) {
            IflXmp* handle = nullptr;
            iflBitmapGetXMP(source.get(), &handle);
            const IflXmpPtr xmp(handle);
            iflBitmapSetXMP(bitmap, xmp.get());
        }
        iflFreeFileInformation(&information);
    }

    // An unknown name leaves the index at -1, which the save reports.
    std::int32_t index = IFL_FORMAT_UNKNOWN;
    if (iflGetFormatIndexByName(name.toUtf8().constData(), &index) != IFL_OK)
        RaiseIflError(
            IFL_ERROR_BAD_FORMAT_INDEX, fileName, Z_LOCATION,
            QCoreApplication::translate("ZException", "no image format is known as \"%1\"")
                .arg(format));
    save.formatIndex = index;

    IflReport report;
    const IflError code =
        iflBeginSave(ZFileName::encode(fileName).constData(), bitmap, save, &m_save, &report);
    if (code != IFL_OK) {
        addNotes(notes, report);
        raiseSaveError(code, *bitmap, fileName, report, Z_LOCATION);
    }
}

ZImageRowSave::~ZImageRowSave() {
    iflFreeSave(m_save);
}

void ZImageRowSave::rowsReady(int rows) noexcept {
    // A failure is kept by the save and told by finish().
    iflSaveRows(m_save, rows);
}

void ZImageRowSave::finish() {
    Z_CHECK(m_save, Z_INVALID_PARAMETER);
    IflReport report;
    const IflError code = iflEndSave(m_save, &report);
    iflFreeSave(m_save);
    m_save = nullptr;
    addNotes(m_notes, report);
    if (code != IFL_OK) raiseSaveError(code, *m_image.bitmap, m_fileName, report, Z_LOCATION);
}
