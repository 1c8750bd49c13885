#include "tests/support/TestConfig.h"

#include "platform/config/ConfigStore.h"

void setConfig(const QString& key, const QVariant& value)
{
    QString error;
    if (!ConfigStore::instance()->set(key, value.toString(), &error))
        qFatal("%s", qPrintable(error));
}
