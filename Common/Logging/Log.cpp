#include "Common/Logging/Log.h"
