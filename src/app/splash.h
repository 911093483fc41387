#pragma once

#include <QWidget>

// The start-up splash window `Splash`: logo, product, platform, company, the
// no-warranty warning and `lblVersion` ("Version " + major.minor.revision).
// It closes itself on the first tick of its timer.
class Splash : public QWidget
{
    Q_OBJECT
public:
    static constexpr int defaultShowMilliseconds = 2000;
    explicit Splash(int showMilliseconds = defaultShowMilliseconds, QWidget *parent = nullptr);

    static QString versionText();
};
