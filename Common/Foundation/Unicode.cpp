#include "Common/Foundation/Unicode.h"
