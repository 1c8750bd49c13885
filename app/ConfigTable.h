#pragma once

#include <QString>

// The --list-config table: a header line starting with "#", then one line per configuration
// object, "key<TAB>type<TAB>default<TAB>current", ordered by key. Verbose adds a fifth column:
// what the value governs, its unit and its valid range.
namespace ConfigTable {

QString text(bool verbose);

} // namespace ConfigTable
