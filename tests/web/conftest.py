"""Fixtures of the page's tests."""

import pytest
from stand import Browser, Stand


@pytest.fixture(scope="session")
def chromium():
    browser = Browser()
    yield browser
    browser.close()


@pytest.fixture
def stand():
    """The server, with a plant that is well."""
    with Stand() as server:
        server.live("well")
        yield server


@pytest.fixture
def browser(chromium):
    """The browser with a wide, light screen; what its console has to complain of fails the test."""
    chromium.look_like()
    yield chromium
    assert chromium.complaints() == []
    chromium.driver.get("about:blank")
