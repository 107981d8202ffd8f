# SPDX-License-Identifier: LGPL-2.1-or-later
"""What the cases are given."""

import pytest
from bench import Bench
from stage import pam_service


@pytest.fixture
def bench(request):
    """A bus and a service of the case's own; with_options() says how it differs from the usual."""
    with Bench(**getattr(request, "param", {})) as one:
        yield one


@pytest.fixture
def pam():
    with pam_service() as name:
        yield name
