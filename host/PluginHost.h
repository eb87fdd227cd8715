// PluginHost: finds the haze plug-in, checks its metadata and loads it.
#pragma once

#include <QObject>
#include <QPluginLoader>
#include <QString>

class ZIPluginLibrary;

class PluginHost : public QObject {
    Q_OBJECT

public:
    explicit PluginHost(QObject* parent = nullptr);
    ~PluginHost() override;

    // Loads the plug-in at `path`, or when empty the first one found in the
    // usual places (SKYRINSE_PLUGIN, then the plugins folder beside or above
    // the executable, then the installed one). False with errorString() set
    // when it is missing, not a Skyrinse plug-in, or cannot be loaded.
    bool load(const QString& path = QString());
    QString errorString() const { return m_error; }
    QString fileName() const { return m_loader.fileName(); }
    ZIPluginLibrary* library() const { return m_library; }

    static QStringList candidatePaths();

private:
    QPluginLoader m_loader;
    ZIPluginLibrary* m_library = nullptr;
    QString m_error;
};
