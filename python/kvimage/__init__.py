"""Effects, keying and compositing of 8-bit images held in numpy arrays.

Images are numpy arrays of shape (height, width, 4), dtype uint8, C-contiguous,
each pixel's bytes in blue, green, red, alpha order (OpenCV's BGRA). The front
ends wrap them without a copy and hold them while they are used:

    import kvimage
    graded = kvimage.Processor(frame).set_brightness(0.2).set_tint("bronze", 0.8).render()
    keyed = kvimage.key(frame, erode=1)
    shot = kvimage.composite(plate, keyed)

Every stage is a method of Processor, Keyer or Compositor, made from the
engine's catalogue of setters when the module is imported: help() on one
tells its parameters, their ranges and the codes it can raise (as
kvimage.Error). from_rgb and to_rgba convert Pillow's RGB and RGBA arrays.
"""

import inspect
import numbers

import numpy

from ._kvimage import Compositor, Error, Keyer, Processor, result_meaning, set_threads, thread_count
from ._kvimage import catalogue
from ._kvimage import detect_key_color as _detect_key_color

__all__ = ["Processor", "Keyer", "Compositor", "Error", "set_threads", "thread_count", "key", "composite",
           "from_rgb", "to_rgba", "result_meaning", "catalogue"]

# The catalogue's rows (catalogue() gives each as a dictionary: name, parameters, codes, ...).
_CATALOGUE = catalogue()

_FRONT_ENDS = (Processor, Keyer, Compositor)  # in the catalogue's front-end order

_LAYOUTS = {"colour": "(red, green, blue), each 0..255", "point": "(x, y)",
            "rect": "(left, top, width, height), whole numbers",
            "quad": "(top-left, top-right, bottom-left, bottom-right), four (x, y) pairs"}

_CHECKS = {"range": "refused outside it (code 7)",
           "channel-selection": "the values 0..2 are refused (code 10)",
           "direction-pair": "refused when it and the next flag are both False (code 4)",
           "layer-matches": "must match the background's shape (code 1000)"}


def _default(parameter):
    kind, values = parameter["type"], parameter["defaults"]
    if kind == "layer":
        return inspect.Parameter.empty
    if kind == "choice":
        return next((name for name, value in parameter["choices"] if value == values[0]), int(values[0]))
    if kind == "bool":
        return bool(values[0])
    if kind in ("integer", "radius", "colour", "rect"):
        values = [int(v) for v in values]
    return values[0] if len(values) == 1 else tuple(values)


def _numbers(parameter, value):
    """The flat list of numbers the catalogue takes for one argument."""
    name, kind = parameter["python_name"], parameter["type"]
    if kind == "choice" and isinstance(value, str):
        for choice, number in parameter["choices"]:
            if choice == value:
                return [float(number)]
        names = ", ".join(repr(choice) for choice, _ in parameter["choices"])
        raise ValueError(f"{name} must be one of {names} or an int; got {value!r}")
    if parameter["numbers"] == 1:
        values = [value]
    else:
        try:
            values = list(numpy.asarray(value, dtype=object).ravel())
        except Exception:
            values = []
        if len(values) != parameter["numbers"]:
            raise ValueError(f"{name} takes {parameter['numbers']} numbers {_LAYOUTS[kind]}; got {value!r}")
    for number in values:
        if not isinstance(number, numbers.Real):
            raise TypeError(f"{name} takes numbers; got {type(number).__name__}")
    return [float(number) for number in values]


def _number(value):
    return str(int(value)) if value.is_integer() else f"{value:g}"


def _describe(parameter):
    kind = parameter["type"]
    text = f"{parameter['python_name']}: {parameter['explanation']}"
    if kind == "choice":
        text += "; one of " + ", ".join(repr(name) for name, _ in parameter["choices"]) + " (or an int)"
    elif kind == "layer":
        text += "; an array"
    elif kind in _LAYOUTS:
        text += "; " + _LAYOUTS[kind]
    elif kind == "bool":
        text += "; True or False"
    elif max(abs(parameter["minimum"]), abs(parameter["maximum"])) < 1e15:
        text += f"; {_number(parameter['minimum'])} .. {_number(parameter['maximum'])}"
    if parameter["unit"] and kind not in ("rect", "quad", "point"):
        text += " " + parameter["unit"]
    if parameter["check"] in _CHECKS:
        text += ", " + _CHECKS[parameter["check"]]
    return text


def _method(row):
    parameters = row["parameters"]
    signature = inspect.Signature(
        [inspect.Parameter("self", inspect.Parameter.POSITIONAL_OR_KEYWORD)] +
        [inspect.Parameter(p["python_name"], inspect.Parameter.POSITIONAL_OR_KEYWORD, default=_default(p))
         for p in parameters])

    def method(self, *args, **kwargs):
        arguments = signature.bind(self, *args, **kwargs)
        arguments.apply_defaults()
        values, layers = [], []
        for parameter in parameters:
            argument = arguments.arguments[parameter["python_name"]]
            if parameter["type"] == "layer":
                layers.append(argument)
            else:
                values += _numbers(parameter, argument)
        self._queue(row["name"], values, layers)
        return self

    codes = ", ".join(f"{code} ({result_meaning(code)})" for code in row["codes"])
    lines = [row["explanation"][:1].upper() + row["explanation"][1:] + ".", ""]
    lines += [_describe(p) for p in parameters]
    lines += ["", f"Queues the {row['stage']} stage ({row['name']}) and returns the front end; raises "
              f"kvimage.Error with code {codes}."]
    if row["requires_bgra"]:
        lines.append("Renders BGRA images only.")
    if not row["same_bytes_at_any_thread_count"]:
        lines.append("Its bytes depend on the thread count (kvimage.set_threads fixes it).")
    method.__signature__ = signature
    method.__name__ = row["python_name"]
    method.__doc__ = "\n".join(lines)
    return method


for _row in _CATALOGUE:
    _front_end = _FRONT_ENDS[_row["front_end"]]
    _generated = _method(_row)
    _generated.__qualname__ = f"{_front_end.__name__}.{_generated.__name__}"
    setattr(_front_end, _generated.__name__, _generated)
del _row, _front_end, _generated


def _parameter(front_end, method, name):
    row = next(r for r in _CATALOGUE if _FRONT_ENDS[r["front_end"]].__name__ == front_end and r["python_name"] == method)
    return next(p for p in row["parameters"] if p["python_name"] == name)


def from_rgb(pixels):
    """A new BGRA array from an RGB or RGBA one (Pillow's order; a PIL image works too); RGB becomes opaque."""
    rgb = numpy.asarray(pixels)
    if rgb.dtype != numpy.uint8 or rgb.ndim != 3 or rgb.shape[2] not in (3, 4):
        raise ValueError(f"from_rgb takes a uint8 array of shape (height, width, 3 or 4); got {rgb.dtype} {rgb.shape}")
    bgra = numpy.full(rgb.shape[:2] + (4,), 255, dtype=numpy.uint8)
    bgra[..., 2::-1] = rgb[..., :3]
    if rgb.shape[2] == 4:
        bgra[..., 3] = rgb[..., 3]
    return bgra


def to_rgba(pixels):
    """A new RGBA array (Pillow's order: PIL.Image.fromarray takes it) from a BGRA one."""
    bgra = numpy.asarray(pixels)
    if bgra.dtype != numpy.uint8 or bgra.ndim != 3 or bgra.shape[2] != 4:
        raise ValueError(f"to_rgba takes a uint8 array of shape (height, width, 4); got {bgra.dtype} {bgra.shape}")
    return numpy.ascontiguousarray(bgra[..., [2, 1, 0, 3]])


def key(frame, key_color="auto", spill=1.0, erode=0, **settings):
    """A new keyed BGRA frame: frame's colour with the matte of a colour-difference key as alpha.

    key_color and settings (balance, saturation_limit, saturation_softness) go to
    Keyer.set_auto_color_difference_key. spill, when not 0, removes that much of the
    backing's cast (set_spill_suppression on the key colour, the detected one for
    "auto"); erode, when not 0, shrinks the opaque matte by that many pixels.
    """
    keyer = Keyer(frame).set_auto_color_difference_key(key_color, **settings)
    if spill:
        colours = {value: name for name, value in _parameter("Keyer", "set_auto_color_difference_key", "key_color")["choices"]}
        backing = colours.get(key_color, key_color)
        if backing == "auto":
            backing = colours[_detect_key_color(frame)]
        keyer.set_spill_suppression(channel=backing, amount=spill)  # the channel choices share the colours' names
    if erode:
        keyer.set_white_erode(size=erode)
    return keyer.render()


def composite(background, layer, mode="normal", opacity=1.0, composite_type="alpha"):
    """A new BGRA array: layer laid over a copy of background (Compositor.add_layer's blend mode and type)."""
    result = numpy.array(background, order="C", copy=True)
    return Compositor(result).add_layer(layer, opacity, mode, composite_type).render()
