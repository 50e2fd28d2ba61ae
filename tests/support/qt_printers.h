#pragma once

// How GoogleTest's messages show Qt's values. Has to be included wherever such values are compared.

#include <QByteArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QString>

#include <ostream>

inline void PrintTo(const QString &text, std::ostream *out)
{
    *out << '"' << text.toStdString() << '"';
}

inline void PrintTo(const QByteArray &bytes, std::ostream *out)
{
    *out << '"' << bytes.toStdString() << '"';
}

inline void PrintTo(const QJsonObject &object, std::ostream *out)
{
    *out << QJsonDocument(object).toJson(QJsonDocument::Compact).toStdString();
}
