"""What calls of the filtering platform fail with: Windows' numbers."""

SUCCESS = 0
ERROR_INVALID_HANDLE = 6
ERROR_INVALID_PARAMETER = 87
FWP_E_CONDITION_NOT_FOUND = 0x80320002
FWP_E_FILTER_NOT_FOUND = 0x80320003
FWP_E_LAYER_NOT_FOUND = 0x80320004
FWP_E_SUBLAYER_NOT_FOUND = 0x80320007
FWP_E_ALREADY_EXISTS = 0x80320009
FWP_E_IN_USE = 0x8032000A
FWP_E_NULL_DISPLAY_NAME = 0x80320023
FWP_E_INVALID_ACTION_TYPE = 0x80320024
FWP_E_INVALID_WEIGHT = 0x80320025
FWP_E_TYPE_MISMATCH = 0x80320027


class Failure(Exception):
    """A call that Windows would refuse with `code`."""

    def __init__(self, code):
        super().__init__(f"{code:#x}")
        self.code = code
