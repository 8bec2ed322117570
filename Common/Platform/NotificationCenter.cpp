#include "Common/Platform/NotificationCenter.h"
