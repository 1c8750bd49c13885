#pragma once

#include "platform/config/TypedConfigValue.h"

struct ConfigIntTraits
{
    static const char* name() { return "int"; }
    static bool parse(const QString& text, int* value) { return ConfigText::parseInt(text, value); }
    static QString format(int v) { return QString::number(v); }
};

// A configuration value of type int; see ConfigValue for layering and threads.
class ConfigIntValue : public TypedConfigValue<int, ConfigIntTraits>
{
public:
    using TypedConfigValue::TypedConfigValue;
};
