#include "Common/Logging/LogArgument.h"
