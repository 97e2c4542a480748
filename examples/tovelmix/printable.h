// SPDX-License-Identifier: MIT
#ifndef TOVELMIX_PRINTABLE_H
#define TOVELMIX_PRINTABLE_H

#include <QtCore/QByteArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QString>

#include <algorithm>

namespace tovelmix {

/// What would break a line, or steer the terminal that shows it.
inline bool isControl(QChar letter)
{
    const QChar::Category category = letter.category();
    return category == QChar::Other_Control || category == QChar::Separator_Line ||
           category == QChar::Separator_Paragraph;
}

/// What makes a terminal show the letters of a name in another order.
inline bool isDirectionMark(QChar letter)
{
    const char16_t code = letter.unicode();
    return (code >= 0x202a && code <= 0x202e) || (code >= 0x2066 && code <= 0x2069);
}

/// Text from elsewhere as it may be shown: in one line, with '?' for what would change its look.
inline QString printable(QString text)
{
    std::replace_if(
        text.begin(), text.end(),
        [](QChar letter) { return isControl(letter) || isDirectionMark(letter); },
        QLatin1Char('?'));
    return text;
}

/// JSON text as it may be shown: the same strings, with an escape for each direction mark.
inline QByteArray printable(const QJsonDocument &document, QJsonDocument::JsonFormat format)
{
    QString text = QString::fromUtf8(document.toJson(format));
    for (qsizetype i = text.size() - 1; i >= 0; --i) {
        if (isDirectionMark(text.at(i)))
            text.replace(i, 1, QStringLiteral("\\u%1").arg(text.at(i).unicode(), 4, 16));
    }
    return text.toUtf8();
}

} // namespace tovelmix

#endif
