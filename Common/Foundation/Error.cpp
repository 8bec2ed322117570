#include "Common/Foundation/Error.h"
