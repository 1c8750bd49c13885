#pragma once

#include "platform/config/TypedConfigValue.h"

struct ConfigRealTraits
{
    static const char* name() { return "real"; }
    static bool parse(const QString& text, double* value) { return ConfigText::parseReal(text, value); }
    static QString format(double v) { return ConfigText::formatReal(v); }
};

// A configuration value of type real; see ConfigValue for layering and threads.
class ConfigRealValue : public TypedConfigValue<double, ConfigRealTraits>
{
public:
    using TypedConfigValue::TypedConfigValue;
};
