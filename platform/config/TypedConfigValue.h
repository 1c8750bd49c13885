#pragma once

#include "platform/config/ConfigText.h"
#include "platform/config/ConfigValue.h"

// The shared shape of the typed configuration values: T is the value type and Traits supplies
// its name, parser and printer (see ConfigIntValue and its siblings).
//
// Thread: value() is safe from any thread.
template <class T, class Traits>
class TypedConfigValue : public ConfigValue
{
public:
    TypedConfigValue(const QString& key, const T& defaultValue)
        : ConfigValue(key, Traits::name())
        , mDefault(defaultValue)
    {
    }

    // The value in force. An override that does not parse cannot be in force (the store
    // refuses it), so the default stands in only for a key shared with another type.
    T value() const
    {
        QString text;
        T parsed{};
        if (overrideText(&text) && Traits::parse(text, &parsed))
            return parsed;
        return mDefault;
    }

    const T& defaultValue() const { return mDefault; }
    QString defaultText() const override { return Traits::format(mDefault); }
    bool accepts(const QString& text) const override { return Traits::parse(text, nullptr); }

private:
    const T mDefault;
};
