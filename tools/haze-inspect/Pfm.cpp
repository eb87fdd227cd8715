#include "Pfm.h"

#include <QCoreApplication>
#include <QSaveFile>

#include <bit>
#include <cstring>
#include <stdexcept>
#include <vector>

namespace pfm {

void write(const QString& path, int width, int height, int channels, const RowSource& rows) {
    if (channels != 1 && channels != 3)
        throw std::invalid_argument("pfm::write: channels must be 1 or 3");
    // QSaveFile: a failed run never leaves a truncated map behind.
    QSaveFile file(path);
    const auto fail = [&] {
        return std::runtime_error(QCoreApplication::translate("haze-inspect", "Cannot write %1: %2")
                                      .arg(path, file.errorString())
                                      .toStdString());
    };
    if (!file.open(QIODevice::WriteOnly)) throw fail();
    const QByteArray header = QByteArray(channels == 3 ? "PF\n" : "Pf\n") +
                              QByteArray::number(width) + ' ' + QByteArray::number(height) +
                              "\n-1.0\n";
    file.write(header);
    const std::size_t count = static_cast<std::size_t>(width) * channels;
    std::vector<float> row(count);
    std::vector<char> bytes(count * sizeof(float));
    for (int y = height - 1; y >= 0; --y) {
        rows(y, row.data());
        std::memcpy(bytes.data(), row.data(), bytes.size());
        if constexpr (std::endian::native == std::endian::big) {
            for (std::size_t i = 0; i < bytes.size(); i += 4) {
                std::swap(bytes[i], bytes[i + 3]);
                std::swap(bytes[i + 1], bytes[i + 2]);
            }
        }
        if (file.write(bytes.data(), static_cast<qint64>(bytes.size())) !=
            static_cast<qint64>(bytes.size()))
            throw fail();
    }
    if (!file.commit()) throw fail();
}

} // namespace pfm
