#include "glink/marlo_glink.h"
