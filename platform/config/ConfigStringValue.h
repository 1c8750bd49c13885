#pragma once

#include "platform/config/TypedConfigValue.h"

struct ConfigStringTraits
{
    static const char* name() { return "string"; }
    static bool parse(const QString& text, QString* value)
    {
        if (value)
            *value = text;
        return true;
    }
    static QString format(const QString& v) { return v; }
};

// A configuration value of type string; see ConfigValue for layering and threads.
class ConfigStringValue : public TypedConfigValue<QString, ConfigStringTraits>
{
public:
    using TypedConfigValue::TypedConfigValue;
};
