#include "plugin/Library.h"

#include "ZImage/ThreadCount.h"
#include "plugin/PluginInfo.h"
#include "plugin/ZHazeOne2One.h"
#include "plugin/ZIApplication.h"
#include "runtime/nrt.h"

#include <QCoreApplication>

Library::Library(QObject* parent) : QObject(parent) {
    setObjectName(QStringLiteral("ZHaze"));
    // The pixel conversions pick their kernels by processor family, so the
    // detection has to run before any image is touched.
    nrt_image_primitives_init();

    if (ZIApplication* host = ZIApplication::instance()) {
        host->installTranslation(translationFileName(host->locale()));
        threadCount = host->threadFactorB() * host->threadFactorA();
    }
}

Library::~Library() {
    for (const QPointer<QObject>& instance : std::as_const(m_instances))
        delete instance.data();
}

QString Library::translationFileName(const QLocale& locale) {
    return QStringLiteral("%1_%2.qm").arg(QStringLiteral("ZHaze"), locale.name());
}

QList<ZIPluginProcess*> Library::plugins(bool create) {
    if (create) m_instances.append(QPointer<QObject>(new ZHazeOne2One(this)));
    QList<ZIPluginProcess*> result;
    for (const QPointer<QObject>& instance : std::as_const(m_instances))
        if (instance) result.append(qobject_cast<ZHazeOne2One*>(instance.data()));
    return result;
}

QString Library::name() const {
    return QStringLiteral("ZHaze");
}
QString Library::author() const {
    return PluginInfo::author();
}
QString Library::company() const {
    return PluginInfo::company();
}
QString Library::description() const {
    return tr("Comment");
}
QString Library::version() const {
    return PluginInfo::version();
}
QString Library::id() const {
    return PluginInfo::libraryId();
}

QIcon Library::icon() const {
    return QIcon(QStringLiteral(":/%1/Resources/ZHaze.png").arg(PluginInfo::processId()));
}
