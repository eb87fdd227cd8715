// Image files: ZImage::Save, ZImage::Load and CheckForDiskSpace.
//
// Save hands this image's bitmap record to IFL as it stands. The source file
// named for metadata is opened for its header and metadata only, so its
// pixels are never decoded twice; it is only read, never written. A failed
// save is explained in this order: no room on the disk, then a file that
// cannot be written, then the library's code. IFL writes through a temporary
// file in the target folder, so no failure leaves a partial or empty file.
#include "ZImage/ZImage.h"
#include "imagefile/Ifl.h"

#include <QCoreApplication>
#include <QDebug>
#include <QFile>
#include <QFileInfo>
#include <QStringList>

#include <sys/statvfs.h>

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

void addNotes(QStringList* notes, const IflReport& report, bool failed) {
    if (!notes) return;
    for (const std::string& warning : report.warnings)
        *notes << QString::fromLocal8Bit(warning.c_str());
    if (failed && !report.detail.empty()) *notes << QString::fromLocal8Bit(report.detail.c_str());
}

// Free bytes that the calling user may write on the volume of `folder`, or
// -1 when that cannot be known.
qint64 freeBytes(const QString& folder) {
    struct statvfs volume {};
    if (::statvfs(QFile::encodeName(folder).constData(), &volume) != 0) return -1;
    return static_cast<qint64>(volume.f_bavail) * static_cast<qint64>(volume.f_frsize);
}

// Whether the file can be opened for writing, without changing it, and
// without leaving a new file behind when it did not exist.
bool canWrite(const QString& path) {
    QFile file(path);
    if (file.exists()) {
        if (!file.open(QIODevice::ReadWrite)) return false;
        file.close();
        return true;
    }
    if (!file.open(QIODevice::ReadWrite | QIODevice::NewOnly)) return false;
    file.close();
    file.remove();
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
        const IflError code =
            iflLoadBitmap(metadataSource.toLocal8Bit().constData(), &loaded, load, &information);
        const IflBitmapPtr source(loaded);
        addNotes(notes, information.report, code != IFL_OK);
        RaiseIflError(code, metadataSource, Z_LOCATION);

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
    iflGetFormatIndexByName(name.toLocal8Bit().constData(), &index);
    save.formatIndex = index;

    IflReport report;
    const IflError code = iflSaveBitmap(fileName.toLocal8Bit().constData(), bitmap, save, &report);
    addNotes(notes, report, code != IFL_OK);
    if (code != IFL_OK) {
        const qint64 size = static_cast<qint64>(bitmap->bytesPerPixel) * bitmap->height *
                            static_cast<qint64>(bitmap->width);
        CheckForDiskSpace(fileName, size, Z_LOCATION);
    }
    RaiseIflError(code, fileName, Z_LOCATION);
}

void ZImage::Load(const QString& fileName) {
    Z_CHECK(!fileName.isEmpty(), Z_INVALID_PARAMETER);
    IflLoadParams params;
    iflGetDefaultLoadParams(params);
    IflBitmap* loaded = nullptr;
    IflFileInformation information;
    RaiseIflError(iflLoadBitmap(fileName.toLocal8Bit().constData(), &loaded, params, &information),
                  fileName, Z_LOCATION);
    Release();
    bitmap = loaded;
    ownsData = 1;
}
