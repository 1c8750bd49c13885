#include "vehicle/VehicleDataValues.h"

BoolDataValue GUI_canUseInternet(QStringLiteral("GUI_canUseInternet"), true, 1, true);
IntDataValue LINK_linkState(QStringLiteral("LINK_linkState"), true, 1);
