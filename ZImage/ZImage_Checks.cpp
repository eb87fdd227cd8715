// Checks before work: the output can be written and the memory is there.
#include "ZImage/ThreadCount.h"
#include "ZImage/ZFileName.h"
#include "ZImage/ZImage.h"
#include "imagefile/Ifl.h"
#include "runtime/nrt_work.h"

#include <QCoreApplication>
#include <QFile>
#include <QFileInfo>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

QString tr(const char* text) {
    return QCoreApplication::translate("ZException", text);
}

QString systemReason(int error) {
    return QString::fromLocal8Bit(std::strerror(error));
}

// A number from a file of /proc or /sys, or -1.
qint64 readNumber(const char* path, const QByteArray& key = QByteArray()) {
    QFile file(QString::fromLatin1(path));
    if (!file.open(QIODevice::ReadOnly)) return -1;
    const QByteArray text = file.readAll();
    if (key.isEmpty()) {
        bool ok = false;
        const qint64 value = text.trimmed().toLongLong(&ok);
        return ok ? value : -1;
    }
    for (const QByteArray& line : text.split('\n'))
        if (line.startsWith(key)) {
            bool ok = false;
            const qint64 kib = line.mid(key.size()).trimmed().split(' ').value(0).toLongLong(&ok);
            return ok ? kib * 1024 : -1;
        }
    return -1;
}

} // namespace

namespace {

// The room under the address-space limit (ulimit -v), which counts what is
// mapped already; -1 without a limit.
qint64 addressSpaceLeft() {
    rlimit space{};
    if (::getrlimit(RLIMIT_AS, &space) != 0 || space.rlim_cur == RLIM_INFINITY) return -1;
    QFile statm(QStringLiteral("/proc/self/statm"));
    qint64 mapped = 0;
    if (statm.open(QIODevice::ReadOnly))
        mapped = statm.readAll().split(' ').value(0).toLongLong() * ::sysconf(_SC_PAGESIZE);
    return std::max<qint64>(0, static_cast<qint64>(space.rlim_cur) - mapped);
}

} // namespace

qint64 AvailableMemory() {
    qint64 available = readNumber("/proc/meminfo", "MemAvailable:");
    auto least = [&](qint64 value) {
        if (value >= 0 && (available < 0 || value < available)) available = value;
    };
    // A container's limit (cgroup v2); "max" reads as no number.
    const qint64 limit = readNumber("/sys/fs/cgroup/memory.max");
    const qint64 used = readNumber("/sys/fs/cgroup/memory.current");
    if (limit >= 0 && used >= 0) least(std::max<qint64>(0, limit - used));
    least(addressSpaceLeft());
    return available;
}

void CheckForMemory(qint64 bytes, const QString& subject, const QString& location) {
    qint64 available = AvailableMemory();
    qint64 needed = bytes;
    // Each thread of the run also maps a work buffer, a stack and an
    // allocator arena. They are hardly touched, so only an address-space
    // limit feels them; there, a run that ignored them would stall in the
    // BLAS library instead of being refused here.
    const qint64 reservedBytes = static_cast<qint64>(nrt_thread_reserve_bytes(threadCount));
    const qint64 space = addressSpaceLeft();
    if (space >= 0 && bytes + reservedBytes > space) {
        available = space;
        needed = bytes + reservedBytes;
    }
    if (available < 0 || needed <= available) return;
    constexpr qint64 mebibyte = 1024 * 1024;
    throw ZException(tr("Not enough memory for \"%1\": it needs about %2 MiB, and %3 MiB are "
                        "available")
                         .arg(QFileInfo(subject).absoluteFilePath())
                         .arg((needed + mebibyte - 1) / mebibyte)
                         .arg(available / mebibyte),
                     location);
}

void CheckBeforeSave(const QString& fileName, const QString& format, const QString& location) {
    Z_CHECK(!fileName.isEmpty(), Z_INVALID_PARAMETER);
    if (format.isEmpty())
        RaiseIflError(IFL_ERROR_BAD_FORMAT_INDEX, fileName, location,
                      tr("the name has no suffix that tells the format"));
    std::int32_t index = IFL_FORMAT_UNKNOWN;
    if (iflGetFormatIndexByName(format.toLower().toUtf8().constData(), &index) != IFL_OK)
        RaiseIflError(IFL_ERROR_BAD_FORMAT_INDEX, fileName, location,
                      tr("no image format is known as \"%1\"").arg(format));

    const QFileInfo info(fileName);
    const QString folder = info.absolutePath();
    const QByteArray encodedFolder = ZFileName::encode(folder);
    struct stat st {};
    int error = 0;
    if (::stat(encodedFolder.constData(), &st) != 0)
        error = errno;
    else if (!S_ISDIR(st.st_mode))
        error = ENOTDIR;
    else if (::access(encodedFolder.constData(), W_OK | X_OK) != 0)
        error = errno;
    if (error != 0)
        throw ZException(tr("Cannot write into folder \"%1\": %2").arg(folder, systemReason(error)),
                         location);
    const QByteArray encodedFile = ZFileName::encode(info.absoluteFilePath());
    if (::stat(encodedFile.constData(), &st) == 0 &&
        (S_ISDIR(st.st_mode) || ::access(encodedFile.constData(), W_OK) != 0))
        throw ZException(
            tr("Cannot write into file \"%1\": %2")
                .arg(info.absoluteFilePath(), systemReason(S_ISDIR(st.st_mode) ? EISDIR : errno)),
            location);
}
