// ZIAbout: the description of a component, as the host shows it.
#pragma once

#include <QIcon>
#include <QString>
#include <QtPlugin>

class ZIAbout {
public:
    virtual ~ZIAbout() = default;
    virtual QString name() const = 0;
    virtual QString author() const = 0;
    virtual QString company() const = 0;
    virtual QString description() const = 0;
    virtual QString version() const = 0;
    virtual QIcon icon() const = 0;
    virtual QString id() const = 0;
};

// The host reaches interfaces by their class names through qt_metacast, so
// the identifiers of those that are not direct bases are those names.
#define ZIAbout_iid "ZIAbout"
Q_DECLARE_INTERFACE(ZIAbout, ZIAbout_iid)
