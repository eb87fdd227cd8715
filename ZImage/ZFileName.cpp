#include "ZImage/ZFileName.h"

namespace {

constexpr char16_t kEscapeBase = 0xDC00; // U+DC80..U+DCFF carry the bytes 0x80..0xFF

// Length of the valid UTF-8 sequence at `p` (at most `left` bytes), or 0.
int sequenceLength(const unsigned char* p, qsizetype left, char32_t& codePoint) {
    const unsigned char b = p[0];
    int length = 0;
    char32_t value = 0, minimum = 0;
    if (b < 0x80) {
        codePoint = b;
        return 1;
    } else if ((b & 0xE0) == 0xC0) {
        length = 2, value = b & 0x1F, minimum = 0x80;
    } else if ((b & 0xF0) == 0xE0) {
        length = 3, value = b & 0x0F, minimum = 0x800;
    } else if ((b & 0xF8) == 0xF0) {
        length = 4, value = b & 0x07, minimum = 0x10000;
    } else {
        return 0;
    }
    if (left < length) return 0;
    for (int i = 1; i < length; ++i) {
        if ((p[i] & 0xC0) != 0x80) return 0;
        value = (value << 6) | (p[i] & 0x3F);
    }
    // Overlong forms, surrogates and values past Unicode are not valid UTF-8.
    if (value < minimum || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF)) return 0;
    codePoint = value;
    return length;
}

} // namespace

namespace ZFileName {

QString decode(const QByteArray& bytes) {
    QString name;
    name.reserve(bytes.size());
    const auto* p = reinterpret_cast<const unsigned char*>(bytes.constData());
    const qsizetype size = bytes.size();
    for (qsizetype i = 0; i < size;) {
        char32_t codePoint = 0;
        const int length = sequenceLength(p + i, size - i, codePoint);
        if (length == 0) {
            name += QChar(char16_t(kEscapeBase + p[i]));
            ++i;
            continue;
        }
        const char32_t one[] = {codePoint};
        name += QString::fromUcs4(one, 1);
        i += length;
    }
    return name;
}

QByteArray encode(const QString& name) {
    QByteArray bytes;
    bytes.reserve(name.size());
    const qsizetype size = name.size();
    for (qsizetype i = 0; i < size; ++i) {
        const char16_t unit = name.at(i).unicode();
        const bool paired = QChar::isHighSurrogate(unit) && i + 1 < size &&
                            QChar::isLowSurrogate(name.at(i + 1).unicode());
        if (!paired && unit >= kEscapeBase + 0x80 && unit <= kEscapeBase + 0xFF) {
            bytes += char(unit - kEscapeBase);
            continue;
        }
        const qsizetype length = paired ? 2 : 1;
        bytes += name.mid(i, length).toUtf8();
        i += length - 1;
    }
    return bytes;
}

} // namespace ZFileName
