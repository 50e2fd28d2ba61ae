#pragma once

#include <QByteArrayView>

#include <windows.h>

namespace ruvo {

/// Writes UTF-8 to a standard handle (STD_OUTPUT_HANDLE, STD_ERROR_HANDLE) as it is, whatever the code page:
/// files and pipes get the bytes, a console gets the text. False if it cannot be written.
bool writeUtf8(DWORD standardHandle, QByteArrayView text);

} // namespace ruvo
