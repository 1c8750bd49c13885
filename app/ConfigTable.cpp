#include "app/ConfigTable.h"

#include "platform/config/ConfigStore.h"
#include "platform/config/ConfigValue.h"

namespace ConfigTable {

namespace {

QString description(const ConfigValue* value)
{
    const QString range = value->rangeText();
    return QString::fromUtf8(value->help()) + (range.isEmpty() ? QString() : QStringLiteral("; ") + range);
}

} // namespace

QString text(bool verbose)
{
    QString table = verbose ? QStringLiteral("# key\ttype\tdefault\tcurrent\twhat it governs (unit); valid range\n")
                            : QStringLiteral("# key\ttype\tdefault\tcurrent\n");
    for (const ConfigValue* value : ConfigStore::instance()->values()) {
        table += value->key() + QLatin1Char('\t') + QString::fromLatin1(value->typeName()) + QLatin1Char('\t')
            + value->defaultText() + QLatin1Char('\t') + value->currentText();
        table += verbose ? QLatin1Char('\t') + description(value) + QLatin1Char('\n') : QStringLiteral("\n");
    }
    return table;
}

} // namespace ConfigTable
