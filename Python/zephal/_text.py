"""Texts, as str or as bytes."""

from __future__ import annotations

from typing import Union

Text = Union[str, bytes]


def to_bytes(text: Text) -> bytes:
    """A str as UTF-8."""
    return text.encode() if isinstance(text, str) else text
