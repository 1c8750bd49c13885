#pragma once

#include "platform/config/TypedConfigValue.h"

struct ConfigBoolTraits
{
    static const char* name() { return "bool"; }
    static bool parse(const QString& text, bool* value) { return ConfigText::parseBool(text, value); }
    static QString format(bool v) { return ConfigText::formatBool(v); }
};

// A configuration value of type bool; see ConfigValue for layering and threads.
class ConfigBoolValue : public TypedConfigValue<bool, ConfigBoolTraits>
{
public:
    using TypedConfigValue::TypedConfigValue;
};
