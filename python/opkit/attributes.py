"""Attribute blocks, built from the records of opkit.tables."""

import numpy as np

from opkit.tables import CODES, OPERATORS, RECORDS, U8


def block_type(record):
    """The numpy type of a whole attribute block: its fields at their bytes, whatever lies between them."""
    size, fields = RECORDS[record]
    return np.dtype({
        "names": list(fields),
        "formats": [kind for kind, _ in fields.values()],
        "offsets": [offset for _, offset in fields.values()],
        "itemsize": size,
    })


def short_name(operator):
    """Neg for Neg and for NegOpkitForward; a KeyError for what is not in the table."""
    name = operator.removesuffix("OpkitForward")
    if name not in OPERATORS:
        raise KeyError(f"{operator} is no operator; opkit.OPERATORS lists them")
    return name


def fill(block, values):
    """Writes a dict into an attribute block: numbers, lists (which may be shorter), text, names from CODES."""
    for field, value in values.items():
        if field not in block.dtype.names:
            raise KeyError(f"there is no attribute {field}; there are {', '.join(block.dtype.names) or 'none'}")
        kind = block.dtype.fields[field][0]
        if isinstance(value, str) and kind.kind != "S":
            value = CODES[value]
        if kind.kind == "S":
            encoded = value.encode() if isinstance(value, str) else value
            if len(encoded) >= kind.itemsize:
                raise ValueError(f"{field} has room for {kind.itemsize - 1} characters, not {len(encoded)}")
            block[field] = encoded
        elif kind.subdtype:
            entries = np.frombuffer(value, U8) if isinstance(value, bytes) else np.asarray(value)
            base, (room,) = kind.subdtype
            if entries.ndim != 1 or len(entries) > room:
                raise ValueError(f"{field} has room for {room} entries, not for shape {entries.shape}")
            block[field][:len(entries)] = [_exact(field, base, entry) for entry in entries.tolist()]
        else:
            block[field] = _exact(field, kind, value)


def _exact(field, kind, value):
    """The value, unless a whole number does not fit or a fraction goes to an integer field."""
    if kind.kind in "iu":
        limits = np.iinfo(kind)
        if int(value) != value or not limits.min <= value <= limits.max:
            raise ValueError(f"{field} takes whole numbers from {limits.min} to {limits.max}, not {value}")
        return int(value)
    return value
