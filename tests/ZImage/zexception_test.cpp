// ZException and RaiseIflError: texts, locations, and the IFL code table.
#include "ZImage/ZException.h"

#include <QDir>
#include <QRegularExpression>
#include <gtest/gtest.h>

namespace {

ZException raise(int code, const QString& path) {
    try {
        RaiseIflError(code, path, QStringLiteral("here"));
    } catch (const ZException& e) {
        return e;
    }
    ADD_FAILURE() << "code " << code << " did not throw";
    return ZException(QString(), QString());
}

} // namespace

TEST(ZException, CarriesMessageAndLocationThroughCopiesAndBaseCatchers) {
    const ZException original(QStringLiteral("Invalid Bitmap"),
                              QStringLiteral("File: \"a.cpp\" Line: 7"));
    const ZException copy(original);
    EXPECT_STREQ(copy.what(), "Invalid Bitmap");
    EXPECT_EQ(*copy.location(), QStringLiteral("File: \"a.cpp\" Line: 7"));
    try {
        throw copy;
    } catch (const std::exception& e) {
        EXPECT_STREQ(e.what(), "Invalid Bitmap");
        const auto* z = dynamic_cast<const ZException*>(&e);
        ASSERT_NE(z, nullptr);
        EXPECT_EQ(*z->location(), *original.location());
    }
}

TEST(ZException, WhatIsTheNarrowConversionOfTheMessage) {
    const QString message = QStringLiteral("Fichier « brumeux » : échec");
    const ZException e(message, QString());
    EXPECT_EQ(std::string(e.what()), message.toStdString());
}

TEST(ZException, CheckSiteLocationNamesFileAndLine) {
    try {
        Z_CHECK(false, Z_INVALID_PARAMETER);
        FAIL() << "Z_CHECK did not throw";
    } catch (const ZException& e) {
        EXPECT_STREQ(e.what(), "Invalid Parameter");
        const QRegularExpression form(
            QStringLiteral("^File: \"tests/ZImage/zexception_test\\.cpp\" Line: (\\d+)$"));
        const auto match = form.match(*e.location());
        ASSERT_TRUE(match.hasMatch()) << e.location()->toStdString();
        EXPECT_EQ(match.captured(1).toInt(), __LINE__ - 8);
    }
}

TEST(RaiseIflError, ZeroNeverThrows) {
    EXPECT_NO_THROW(RaiseIflError(0, QString(), QStringLiteral("x")));
    EXPECT_NO_THROW(RaiseIflError(0, QStringLiteral("/no/such/file.jpg"), QStringLiteral("x")));
}

TEST(RaiseIflError, NamesEveryCodeOfTheTableAndNothingElse) {
    const std::pair<int, const char*> table[] = {
        {1, "IFL_ERROR_FILE_OPEN"},       {2, "IFL_ERROR_FILE_READ"},
        {3, "IFL_ERROR_FILE_CREATE"},     {4, "IFL_ERROR_FILE_WRITE"},
        {5, "IFL_ERROR_NO_MEMORY"},       {6, "IFL_ERROR_UNKNOWN_FORMAT"},
        {7, "IFL_ERROR_BAD_BITMAP"},      {10, "IFL_ERROR_BAD_FORMAT_INDEX"},
        {50, "IFL_ERROR_BAD_PARAMETERS"}, {8, "IFL_UNKNOWN_ERROR"},
        {9, "IFL_UNKNOWN_ERROR"},         {11, "IFL_UNKNOWN_ERROR"},
        {49, "IFL_UNKNOWN_ERROR"},        {51, "IFL_UNKNOWN_ERROR"},
        {-1, "IFL_UNKNOWN_ERROR"},        {32767, "IFL_UNKNOWN_ERROR"},
    };
    for (const auto& [code, name] : table) {
        const ZException e = raise(code, QString());
        EXPECT_EQ(std::string(e.what()), "Error IFL : \"" + std::string(name) + "\"") << code;
        EXPECT_EQ(*e.location(), QStringLiteral("here"));
    }
}

TEST(RaiseIflError, PathMakesASecondLineWithTheAbsolutePath) {
    const ZException single = raise(4, QString());
    EXPECT_EQ(std::string(single.what()).find('\n'), std::string::npos);

    const ZException relative = raise(1, QStringLiteral("sub/photo.jpg"));
    const QString expected =
        QStringLiteral("Error IFL : \"IFL_ERROR_FILE_OPEN\"\nFile : \"%1\"")
            .arg(QDir::current().absoluteFilePath(QStringLiteral("sub/photo.jpg")));
    EXPECT_EQ(QString::fromStdString(relative.what()), expected);
}

TEST(RaiseIflError, AReasonMakesTheLastLine) {
    try {
        RaiseIflError(1, QStringLiteral("/x/a.jpg"), QStringLiteral("here"),
                      QStringLiteral("Permission denied"));
        FAIL() << "no exception";
    } catch (const ZException& e) {
        EXPECT_STREQ(e.what(), "Error IFL : \"IFL_ERROR_FILE_OPEN\"\nFile : \"/x/a.jpg\"\n"
                               "Reason : Permission denied");
    }
    try {
        RaiseIflError(5, QString(), QStringLiteral("here"), QStringLiteral("too large"));
        FAIL() << "no exception";
    } catch (const ZException& e) {
        EXPECT_STREQ(e.what(), "Error IFL : \"IFL_ERROR_NO_MEMORY\"\nReason : too large");
    }
}
