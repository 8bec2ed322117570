#include "Common/Foundation/PathFunctions.h"
