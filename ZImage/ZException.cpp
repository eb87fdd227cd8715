#include "ZImage/ZException.h"

#include "imagefile/IflErrors.h"

#include <QCoreApplication>
#include <QFileInfo>

ZException::ZException(const QString& message, const QString& location)
    : std::runtime_error(message.toStdString()), m_location(location) {}

ZException::~ZException() = default;

const char* IflErrorName(int code) {
    switch (code) {
    case IFL_ERROR_FILE_OPEN:
        return "IFL_ERROR_FILE_OPEN";
    case IFL_ERROR_FILE_READ:
        return "IFL_ERROR_FILE_READ";
    case IFL_ERROR_FILE_CREATE:
        return "IFL_ERROR_FILE_CREATE";
    case IFL_ERROR_FILE_WRITE:
        return "IFL_ERROR_FILE_WRITE";
    case IFL_ERROR_NO_MEMORY:
        return "IFL_ERROR_NO_MEMORY";
    case IFL_ERROR_UNKNOWN_FORMAT:
        return "IFL_ERROR_UNKNOWN_FORMAT";
    case IFL_ERROR_BAD_BITMAP:
        return "IFL_ERROR_BAD_BITMAP";
    case IFL_ERROR_BAD_FORMAT_INDEX:
        return "IFL_ERROR_BAD_FORMAT_INDEX";
    case IFL_ERROR_BAD_PARAMETERS:
        return "IFL_ERROR_BAD_PARAMETERS";
    default:
        return "IFL_UNKNOWN_ERROR";
    }
}

void RaiseIflError(int code, const QString& path, const QString& location, const QString& reason) {
    if (code == 0) return;
    QString message = QCoreApplication::translate("ZException", "Error IFL : \"%1\"")
                          .arg(QString::fromLatin1(IflErrorName(code)));
    if (!path.isEmpty()) {
        message += QLatin1Char('\n');
        message += QCoreApplication::translate("ZException", "File : \"%1\"")
                       .arg(QFileInfo(path).absoluteFilePath());
    }
    if (!reason.isEmpty()) {
        message += QLatin1Char('\n');
        message += QCoreApplication::translate("ZException", "Reason : %1").arg(reason);
    }
    throw ZException(message, location);
}
