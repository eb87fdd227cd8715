// File names as the system stores them: bytes. Linux accepts any bytes but
// '/' and NUL in a name, while QString (and QFile::encodeName in Qt 6) takes
// them as UTF-8 and turns what is not into U+FFFD, so such a file could not be
// opened again. These two functions keep every byte: a byte that is not part
// of valid UTF-8 becomes the lone surrogate U+DC80 + (byte - 0x80) and
// comes back as that byte. Every path that leaves the program for the system
// (IFL, stat, open) goes through ZFileName::encode; every name that comes
// from the system (command line) through ZFileName::decode.
#pragma once

#include <QByteArray>
#include <QString>

namespace ZFileName {

QString decode(const QByteArray& bytes);
QByteArray encode(const QString& name);

} // namespace ZFileName
