#include "platform/core/TagTracer.h"

#include "platform/log/LogLine.h"

#include <QSet>
#include <QStringList>

namespace {

QSet<QString>& enabledTags()
{
    static QSet<QString> tags;
    return tags;
}

} // namespace

void tag_tracer_init()
{
    enabledTags().clear();
    const QStringList tags = qEnvironmentVariable("CABIN_TRACE").split(QLatin1Char(','), Qt::SkipEmptyParts);
    for (const QString& tag : tags)
        enabledTags().insert(tag.trimmed().toLower());
    if (!enabledTags().isEmpty()) {
        QStringList sorted = enabledTags().values();
        sorted.sort();
        LOG_INFO << "tracing tags: " << sorted.join(QStringLiteral(", "));
    }
}

bool tag_tracer_enabled(const QString& tag)
{
    return enabledTags().contains(QStringLiteral("all")) || enabledTags().contains(tag.toLower());
}
