#pragma once

#include <QList>
#include <QString>

#include <optional>

// Text with colour runs, the part of a rich-text document that captured
// configurations use: characters (paragraph breaks as '\n') and, per run, an
// optional foreground colour as 0xRRGGBB (no colour = the view's default).
struct RichRun
{
    QString text;
    std::optional<quint32> colour;

    bool operator==(const RichRun &other) const = default;
};

struct RichText
{
    QList<RichRun> runs;

    // Appends text in a colour, merging with the last run when the colour is the same.
    void append(const QString &text, std::optional<quint32> colour = std::nullopt)
    {
        if (text.isEmpty())
            return;
        if (!runs.isEmpty() && runs.last().colour == colour)
            runs.last().text += text;
        else
            runs.append(RichRun { text, colour });
    }

    QString plainText() const
    {
        QString all;
        for (const RichRun &run : runs)
            all += run.text;
        return all;
    }

    bool operator==(const RichText &other) const = default;
};
