// Compression tests link the compression and platform modules only, but the shared test helpers
// refer to the support module's installer. These tests never install a support object, so a weak
// stand-in lets them link; when the support module is linked too, its definition wins.
#ifndef LOWLEVEL_COMPRESSION_TEST_SUPPORT_LINK_H
#define LOWLEVEL_COMPRESSION_TEST_SUPPORT_LINK_H

#include "lowlevel/support/support.h"

__attribute__((weak)) void setLowLevelSupportPtr(ZlowLevelSupport*) {}

#endif
