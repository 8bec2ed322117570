#include "Common/Foundation/Value.h"
