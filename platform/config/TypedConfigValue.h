#pragma once

#include "platform/config/ConfigText.h"
#include "platform/config/ConfigValue.h"

#include <optional>

// The bounds a numeric setting must keep: {0} is "at least 0", {0.0, 10.0} "from 0.0 to
// 10.0", {} any value. A value outside them is refused like one of the wrong type.
template <class T>
struct ConfigRange
{
    ConfigRange() = default;
    ConfigRange(T least)
        : min(least)
    {
    }
    ConfigRange(T least, T most)
        : min(least)
        , max(most)
    {
    }
    std::optional<T> min;
    std::optional<T> max;
};

// The shared shape of the typed configuration values: T is the value type and Traits supplies
// its name, parser and printer (see ConfigIntValue and its siblings).
//
// Thread: value() is safe from any thread.
template <class T, class Traits>
class TypedConfigValue : public ConfigValue
{
public:
    TypedConfigValue(const QString& key, const T& defaultValue, const char* help = "", ConfigRange<T> range = {})
        : ConfigValue(key, Traits::name(), help)
        , mDefault(defaultValue)
        , mRange(range)
    {
    }

    // The value in force. An override that does not parse or lies outside the range cannot be
    // in force (the store refuses it), so the default stands in only for a key shared with
    // another type.
    T value() const
    {
        QString text;
        T parsed{};
        if (overrideText(&text) && Traits::parse(text, &parsed) && inRange(parsed))
            return parsed;
        return mDefault;
    }

    const T& defaultValue() const { return mDefault; }
    QString defaultText() const override { return Traits::format(mDefault); }
    QString currentText() const override { return Traits::format(value()); }
    bool accepts(const QString& text) const override
    {
        T parsed{};
        return Traits::parse(text, &parsed) && inRange(parsed);
    }
    QString rangeText() const override
    {
        if (mRange.min && mRange.max)
            return QStringLiteral("from %1 to %2").arg(Traits::format(*mRange.min), Traits::format(*mRange.max));
        if (mRange.min)
            return QStringLiteral("at least %1").arg(Traits::format(*mRange.min));
        return QString();
    }

private:
    bool inRange(const T& v) const { return (!mRange.min || !(v < *mRange.min)) && (!mRange.max || !(*mRange.max < v)); }

    const T mDefault;
    const ConfigRange<T> mRange;
};
