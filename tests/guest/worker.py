"""A thread of a test whose failure is the test's: a bare one ends unseen."""

import threading


class Worker(threading.Thread):
    """Calls function(*arguments). What ended it is raised where the case asks for it."""

    def __init__(self, function, *arguments):
        super().__init__(daemon=True)
        self.function, self.arguments = function, arguments
        self.failure = None

    def run(self):
        try:
            self.function(*self.arguments)
        except Exception as error:  # pylint: disable=broad-except
            self.failure = error

    def check(self):
        """That nothing has ended it so far."""
        if self.failure is not None:
            raise self.failure

    def finish(self):
        """Waits for its end."""
        self.join()
        self.check()
