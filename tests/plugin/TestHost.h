// A host for tests: a QGuiApplication that answers as ZIApplication, with a
// locale, thread factors and a settings store the test sets, and image
// objects over IFL like the real host's.
#pragma once

#include "plugin/ZIApplication.h"

#include <QGuiApplication>
#include <QMap>
#include <QTranslator>
#include <memory>
#include <vector>

class TestHost : public QGuiApplication, public ZIApplication {
    Q_OBJECT
    Q_INTERFACES(ZIApplication)

public:
    TestHost(int& argc, char** argv);
    ~TestHost() override;

    QVariant value(const QString& pluginId, const QString& key,
                   const QVariant& defaultValue) const override;
    void setValue(const QString& pluginId, const QString& key, const QVariant& value) override;
    int threadFactorA() const override { return factorA; }
    int threadFactorB() const override { return factorB; }
    QLocale locale() const override { return testLocale; }
    void installTranslation(const QString& fileName) override;
    ZIHostImage* image(const QString& path) override;

    // Removes the translations installed so far.
    void resetTranslations();

    QLocale testLocale = QLocale(QLocale::English, QLocale::UnitedStates);
    int factorA = 2;
    int factorB = 1;
    QMap<QString, QVariant> store;
    QStringList requestedTranslations;
    std::vector<std::unique_ptr<QTranslator>> translators;
    QMap<QString, std::shared_ptr<ZIHostImage>> images;
};
