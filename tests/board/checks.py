"""What a case found, each with its bound."""


class Checks:
    def __init__(self):
        self.failed = 0

    def _tell(self, is_good, text):
        self.failed += not is_good
        print(f"{'ok  ' if is_good else 'FAIL'}  {text}", flush=True)

    def error(self, text):
        self._tell(False, text)

    def at_least(self, what, value, bound):
        self._tell(value >= bound, f"{what}: {value} (at least {bound})")

    def at_most(self, what, value, bound):
        self._tell(value <= bound, f"{what}: {value} (at most {bound})")

    def equal(self, what, value, wanted):
        self._tell(value == wanted, f"{what}: {value}" + ("" if value == wanted else f" in place of {wanted}"))
