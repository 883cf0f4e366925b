"""Documents that differ from a sound one in one place: what somebody who writes them by hand gets wrong."""

import copy

OTHER_VALUES = [None, True, 0, 1.5, "", "text", [], {}, [None], ["text"], {"text": "text"}]
UNKNOWN_NAME = "somethingElse"
# The cases of every enumeration, so that one is replaced by another or stands beside it.
CASE_NAMES = ["connect", "hello", "conversation", "thread", "connected", "error", "_0"]


def places(value, path=()):
    """The paths to all values within a value."""
    yield path
    if isinstance(value, dict):
        for name in value:
            yield from places(value[name], (*path, name))
    elif isinstance(value, list):
        for index in range(len(value)):
            yield from places(value[index], (*path, index))


def changed(document, path, change):
    """A copy in which `change` has changed the object or list that holds the value at the path."""
    whole = [copy.deepcopy(document)]
    holder, last = whole, 0
    for step in path:
        holder, last = holder[last], step
    change(holder, last)
    return whole[0]


def set_to(value):
    def change(holder, place):
        holder[place] = copy.deepcopy(value)

    return change


def remove(holder, place):
    del holder[place]


def rename(name):
    def change(holder, place):
        holder[name] = holder.pop(place)

    return change


def put_beside(name):
    def change(holder, _):
        holder.setdefault(name, {})

    return change


def repeat_as(name):
    def change(holder, place):
        holder.setdefault(name, copy.deepcopy(holder[place]))

    return change


def repeat(holder, place):
    holder.append(copy.deepcopy(holder[place]))


def mutations(document):
    """The document itself, and with one change each; some are still sound."""
    yield document
    for path in places(document):
        for value in OTHER_VALUES:
            yield changed(document, path, set_to(value))
        if not path:
            continue
        yield changed(document, path, remove)
        if isinstance(path[-1], int):
            yield changed(document, path, repeat)
            continue
        yield changed(document, path, rename(UNKNOWN_NAME))
        yield changed(document, path, put_beside(UNKNOWN_NAME))
        for name in CASE_NAMES:
            yield changed(document, path, rename(name))
            yield changed(document, path, put_beside(name))
            yield changed(document, path, repeat_as(name))
