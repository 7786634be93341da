// Must not compile: the transport layer may not see the game layer's headers. The test
// "LayeringRefusesAnIncludeFromAboveTheLayer" builds this file and expects the build to fail on
// the include below.
#include "game/PokerThread.h"
