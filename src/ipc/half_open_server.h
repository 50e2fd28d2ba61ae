#pragma once

#include <QLocalServer>

namespace ruvo {

/// Gives back what `server` holds after `listen` has just failed. On Windows QLocalServer leaves the pipe instances
/// that it had made before the failure open for as long as the process lives: clients would connect to them, and
/// nobody would ever serve these clients.
void closeHalfOpenServer(QLocalServer &server);

} // namespace ruvo
