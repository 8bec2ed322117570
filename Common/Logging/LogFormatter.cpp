#include "Common/Logging/LogFormatter.h"
