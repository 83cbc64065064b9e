#include "api/krv.h"
