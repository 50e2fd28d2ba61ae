"""The name by which Windows' filters know a program."""


def of_windows_path(path):
    r"""The app id of a program: `Z:\Apps\One.exe` is `\device\harddiskvolume26\apps\one.exe`.

    On Windows the number is that of the volume; here it is the place of the drive's letter, A being 1.
    """
    letter, colon, rest = path.partition(":")
    if not colon or len(letter) != 1 or not letter.isalpha() or not rest.startswith("\\"):
        raise ValueError(f"{path!r} is no whole path of Windows")
    return rf"\device\harddiskvolume{ord(letter.upper()) - ord('A') + 1}{rest}".lower()
