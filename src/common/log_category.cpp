#include "common/log_category.h"

// Never destroyed: threads that were left behind may log until the process ends.
const QLoggingCategory &lcRuvod()
{
    static const auto &s_category = *new QLoggingCategory("ruvod");
    return s_category;
}
