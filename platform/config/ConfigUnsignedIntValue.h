#pragma once

#include "platform/config/TypedConfigValue.h"

struct ConfigUnsignedIntTraits
{
    static const char* name() { return "unsigned int"; }
    static bool parse(const QString& text, uint* value) { return ConfigText::parseUnsignedInt(text, value); }
    static QString format(uint v) { return QString::number(v); }
};

// A configuration value of type unsigned int; see ConfigValue for layering and threads.
class ConfigUnsignedIntValue : public TypedConfigValue<uint, ConfigUnsignedIntTraits>
{
public:
    using TypedConfigValue::TypedConfigValue;
};
