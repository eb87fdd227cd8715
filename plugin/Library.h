// Library: the root object of the haze plug-in, the instance that the host
// gets from QPluginLoader. It makes and owns the ZHazeOne2One processes.
#pragma once

#include "plugin/ZIAbout.h"
#include "plugin/ZIPluginLibrary.h"

#include <QList>
#include <QObject>
#include <QPointer>

class Library : public QObject, public ZIPluginLibrary, public ZIAbout {
    Q_OBJECT
    Q_PLUGIN_METADATA(IID ZIPluginLibrary_iid FILE "ZHaze.json")
    Q_INTERFACES(ZIPluginLibrary ZIAbout)

public:
    explicit Library(QObject* parent = nullptr);
    ~Library() override;

    QList<ZIPluginProcess*> plugins(bool create) override;

    QString name() const override;
    QString author() const override;
    QString company() const override;
    QString description() const override;
    QString version() const override;
    QIcon icon() const override;
    QString id() const override;

    // The translation file of a locale: "ZHaze_<locale name>.qm".
    static QString translationFileName(const QLocale& locale);

private:
    QList<QPointer<QObject>> m_instances;
};
