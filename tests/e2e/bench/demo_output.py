"""How scripts/run tells what it does."""


def say(text):
    print(text, flush=True)


def headline(text):
    say(f"\n== {text}")
