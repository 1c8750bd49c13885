#pragma once

#include "platform/datavalue/BoolDataValue.h"
#include "platform/datavalue/IntDataValue.h"

// Values owned by other services of the vehicle that the media server reads. Their owners set
// them from outside the process (over the bus), which is why they are externally writable.
//
// GUI_canUseInternet: whether the user allows the car to go online; downloads do not retry
// while it is false. Valid and true from the start, so a car without that service still plays.
extern BoolDataValue GUI_canUseInternet;
// LINK_linkState: the state of the network link, as the connectivity service numbers it;
// invalid until that service reports it.
extern IntDataValue LINK_linkState;
