#pragma once

#include <QLoggingCategory>

/// The one category that every line of the daemon is logged in ("ruvod").
Q_DECLARE_LOGGING_CATEGORY(lcRuvod)
