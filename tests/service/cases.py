# SPDX-License-Identifier: LGPL-2.1-or-later
"""How a case says its name and its bound."""


def registry():
    """A table of cases, and the decorator that puts them there: @case("fact", bound in seconds)."""
    table = {}

    def case(name, bound=20):
        def put(test):
            table[name] = (bound, test)
            return test

        return put

    return table, case
