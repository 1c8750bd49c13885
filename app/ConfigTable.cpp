#include "app/ConfigTable.h"

#include "platform/config/ConfigStore.h"
#include "platform/config/ConfigValue.h"

namespace ConfigTable {

QString text()
{
    QString table;
    for (const ConfigValue* value : ConfigStore::instance()->values()) {
        table += value->key() + QLatin1Char('\t') + QString::fromLatin1(value->typeName()) + QLatin1Char('\t')
            + value->defaultText() + QLatin1Char('\t') + value->currentText() + QLatin1Char('\n');
    }
    return table;
}

} // namespace ConfigTable
