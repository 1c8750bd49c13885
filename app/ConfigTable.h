#pragma once

#include <QString>

// The --list-config table: one line per configuration object,
// "key<TAB>type<TAB>default<TAB>current", ordered by key.
namespace ConfigTable {

QString text();

} // namespace ConfigTable
