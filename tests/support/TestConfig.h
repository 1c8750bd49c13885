#pragma once

#include <QString>
#include <QVariant>

// Sets one configuration value for a test, through the same checks as the command line; a
// refused value ends the test run at once with the reason (a test on a wrong setting proves
// nothing).
//
// Thread: the test's main thread.
void setConfig(const QString& key, const QVariant& value);
