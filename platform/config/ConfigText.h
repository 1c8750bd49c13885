#pragma once

#include <QString>

// Parsing and printing of configuration values, shared by the typed values, the settings file
// and the command line so that all three accept exactly the same texts.
namespace ConfigText {

// Decimal, surrounding white space allowed.
bool parseInt(const QString& text, int* value);
bool parseUnsignedInt(const QString& text, uint* value);
// "true"/"false", "1"/"0", "yes"/"no", "on"/"off", any case.
bool parseBool(const QString& text, bool* value);
bool parseReal(const QString& text, double* value);

QString formatBool(bool value);
// Always shows a decimal point ("1.0"), so a real is never mistaken for an int in a listing.
QString formatReal(double value);

} // namespace ConfigText
