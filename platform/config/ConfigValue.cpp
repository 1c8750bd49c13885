#include "platform/config/ConfigValue.h"

#include "platform/config/ConfigStore.h"

ConfigValue::ConfigValue(const QString& key, const char* typeName, const char* help)
    : mKey(key)
    , mTypeName(typeName)
    , mHelp(help)
{
    ConfigStore::instance()->registerValue(this);
}

ConfigValue::~ConfigValue()
{
    ConfigStore::instance()->unregisterValue(this);
}

QString ConfigValue::currentText() const
{
    QString text;
    return overrideText(&text) ? text : defaultText();
}

bool ConfigValue::overrideText(QString* text) const
{
    return ConfigStore::instance()->lookup(mKey, text);
}
