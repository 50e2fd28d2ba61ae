#include "common/log_category.h"

Q_LOGGING_CATEGORY(lcRuvod, "ruvod")
