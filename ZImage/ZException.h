// ZException: the one exception type of the image and plug-in code.
//
// A failure carries a message for the user (what()) and a location for the
// developer (location()). Code that detects a failure throws through
// Z_CHECK / Z_THROW; it never logs first. Programmer faults ("Invalid Bitmap",
// "Invalid Parameter", "Not enough memory") are plain English; texts about
// files and disks are translated in the context "ZException".
#pragma once

#include <QString>
#include <stdexcept>

class ZException : public std::runtime_error {
public:
    ZException(const QString& message, const QString& location);
    ZException(const ZException&) = default;
    ZException& operator=(const ZException&) = default;
    ~ZException() override;

    virtual const QString* location() const { return &m_location; }

private:
    QString m_location;
};

// Turns an IFL error code into a ZException; a code of 0 returns at once, so
// callers may call it unconditionally after each library call. A non-empty
// path adds a second line naming the file by its absolute path, and a
// non-empty reason (IFL's detail: the system's, codec's or metadata
// library's own words) a third line, so the user reads why, not only what.
void RaiseIflError(int code, const QString& path, const QString& location,
                   const QString& reason = QString());

// The name of an IFL error code as it appears in messages ("IFL_ERROR_FILE_OPEN").
const char* IflErrorName(int code);

#define Z_STRINGIFY_(x) #x
#define Z_STRINGIFY(x) Z_STRINGIFY_(x)

// "File: "<source path>" Line: <n>", fixed at build time.
#define Z_LOCATION QStringLiteral("File: \"" __FILE__ "\" Line: " Z_STRINGIFY(__LINE__))

#define Z_THROW(message) throw ZException((message), Z_LOCATION)

// One expression per check site: if the condition fails, throw.
#define Z_CHECK(condition, message)                                                                \
    do {                                                                                           \
        if (!(condition)) Z_THROW(message);                                                        \
    } while (false)

#define Z_INVALID_BITMAP QStringLiteral("Invalid Bitmap")
#define Z_INVALID_PARAMETER QStringLiteral("Invalid Parameter")
#define Z_NOT_ENOUGH_MEMORY QStringLiteral("Not enough memory")
