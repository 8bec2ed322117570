#include "Common/Foundation/StringHash.h"
