#pragma once

#include <QWidget>

// The start-up splash window `Splash`: logo, product, platform, company, the
// no-warranty warning and `lblVersion` ("Version " + major.minor.revision).
// It closes itself on the first tick of its timer.
class Splash : public QWidget
{
    Q_OBJECT
public:
    explicit Splash(int showMilliseconds = 2000, QWidget *parent = nullptr);

    static QString versionText();
};
