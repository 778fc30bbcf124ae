import pathlib

import zephal

pytest_plugins = ["pytester"]

TEST = """
def test_version(console):
    assert console.ask("version") == "2.0\\n"
"""


def test_a_failed_test_shows_what_the_device_said(pytester):
    pytester.makepyfile(TEST)
    with zephal.Simulator(responses={"version": "1.0\n"}) as device:
        result = pytester.runpytest_subprocess(
            "--console-url", device.url, "--console-prompt", "=> "
        )
    result.assert_outcomes(failed=1)
    result.stdout.fnmatch_lines(["*Console (console-logs/*test_version.log)*", "*post--read*1.0*"])


def test_each_test_has_a_log(pytester):
    pytester.makepyfile(TEST.replace("2.0", "1.0"))
    with zephal.Simulator(responses={"version": "1.0\n"}) as device:
        result = pytester.runpytest_subprocess(
            "--console-url", device.url, "--console-prompt-regex", "=> $"
        )
    result.assert_outcomes(passed=1)
    (log,) = pathlib.Path(pytester.path, "console-logs").iterdir()
    assert "version" in log.read_text()


def test_without_a_url_the_test_is_skipped(pytester):
    pytester.makepyfile(TEST)
    result = pytester.runpytest_subprocess()
    result.assert_outcomes(skipped=1)


def test_a_failed_fixture_shows_what_the_device_said(pytester):
    pytester.makepyfile(
        """
        import pytest

        @pytest.fixture
        def board(console):
            assert console.ask("version") == "2.0\\n"

        def test_board(board):
            pass
        """
    )
    with zephal.Simulator(responses={"version": "1.0\n"}) as device:
        result = pytester.runpytest_subprocess(
            "--console-url", device.url, "--console-prompt", "=> "
        )
    result.assert_outcomes(errors=1)
    result.stdout.fnmatch_lines(["*Console (console-logs/*test_board.log)*", "*post--read*1.0*"])


def test_the_console_is_open_while_fixtures_end_after_a_failure(pytester):
    pytester.makepyfile(
        """
        import pytest

        @pytest.fixture
        def board(console):
            yield console
            assert console.ask("version") == "1.0\\n"

        def test_board(board):
            board.write("version")
            board.write("\\n")
            board.expect("1.")
            assert False
        """
    )
    with zephal.Simulator(responses={"version": "1.0\n"}) as device:
        result = pytester.runpytest_subprocess(
            "--console-url", device.url, "--console-prompt", "=> "
        )
    result.assert_outcomes(failed=1)
    result.stdout.fnmatch_lines(["*post--read*1.0*"])


def test_a_test_with_a_long_name_has_a_log(pytester):
    pytester.makepyfile(
        """
        import pytest

        @pytest.mark.parametrize("word", ["\u00e4" * 300 + "1", "x" * 300 + "/2"])
        def test_word(console, word):
            console.ask("version")
        """
    )
    with zephal.Simulator() as device:
        result = pytester.runpytest_subprocess(
            "--console-url", device.url, "--console-prompt", "=> "
        )
    result.assert_outcomes(passed=2)
    assert len(list(pathlib.Path(pytester.path, "console-logs").iterdir())) == 2
