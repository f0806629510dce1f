"""The Python module against the C++ API, and what it must refuse or keep alive."""

import concurrent.futures
import gc
import os
import subprocess
import weakref

import numpy
import pytest

import kvimage

THREADS = 2
HEIGHT, WIDTH = 9, 13
FRONT_ENDS = (kvimage.Processor, kvimage.Keyer, kvimage.Compositor)
kvimage.set_threads(THREADS)


def image(seed, height=HEIGHT, width=WIDTH):
    return numpy.random.RandomState(seed).randint(0, 256, (height, width, 4)).astype(numpy.uint8)


def other_argument(parameter, index):
    """An argument other than the default: (the Python value, the numbers the C++ side gets)."""
    kind, default = parameter["type"], parameter["defaults"][:1]
    low, high = parameter["minimum"], parameter["maximum"]
    if kind == "real":
        value = low + 0.3 * (high - low) if high - low < 1e6 else default[0] + 1.5
    elif kind in ("integer", "radius"):
        value = int(default[0]) + (1 if kind == "integer" else -1) or 1
    elif kind == "bool":
        value = index % 2 == 1
    elif kind == "choice":
        name, number = next(c for c in reversed(parameter["choices"]) if c[1] != default[0])
        return name, [number]
    else:
        value = {"colour": (200, 40, 90), "point": (2.5, 1.5), "rect": (1, 2, 9, 5),
                 "quad": ((1, 1), (11, 0), (0, 8), (12, 7))}[kind]
        return value, list(numpy.ravel(value))
    return value, [value]


@pytest.mark.parametrize("defaults", [True, False], ids=["defaults", "other-values"])
@pytest.mark.parametrize("row", kvimage.catalogue(), ids=lambda row: f"{row['front_end']}-{row['name']}")
def test_every_setter_gives_the_bytes_of_the_cpp_api(row, defaults):
    source, arguments, numbers, layers = image(1), {}, [], []
    for index, parameter in enumerate(row["parameters"]):
        if parameter["type"] == "layer":
            layers.append(image(2))
            arguments[parameter["python_name"]] = layers[-1]
        elif defaults:
            numbers += parameter["defaults"]
        else:
            arguments[parameter["python_name"]], values = other_argument(parameter, index)
            numbers += values
    result = getattr(FRONT_ENDS[row["front_end"]](source.copy()), row["python_name"])(**arguments).render()
    command = [os.environ["KVIMAGE_RENDER_ROW"], str(row["front_end"]), row["name"], str(WIDTH), str(HEIGHT),
               str(THREADS)] + [repr(float(n)) for n in numbers]
    stdin = source.tobytes() + b"".join(layer.tobytes() for layer in layers)
    assert result.tobytes() == subprocess.run(command, input=stdin, capture_output=True, check=True).stdout


def test_render_writes_the_arrays_it_was_given():
    frame, background = numpy.zeros((HEIGHT + 2, WIDTH, 4), numpy.uint8), image(3)
    destination = frame[1:-1]  # a contiguous view: the rows around it stay untouched
    assert kvimage.Processor(image(1), destination).set_brightness(0.5, "all").render() is destination
    assert destination.all() and not frame[0].any() and not frame[-1].any()
    assert kvimage.Compositor(background).add_layer(image(2), 0.5).render() is background
    assert not numpy.array_equal(background, image(3))


@pytest.mark.parametrize("call, error, detail", [
    (lambda: kvimage.Processor(image(1).astype(numpy.float32)), TypeError, "dtype float32"),
    (lambda: kvimage.Keyer(image(1).tolist()), TypeError, "got list"),
    (lambda: kvimage.Processor(image(1)[..., :3].copy()), ValueError, "kvimage.from_rgb"),
    (lambda: kvimage.Processor(image(1)[:, ::2]), ValueError, "strided"),
    (lambda: kvimage.Processor(image(1), numpy.broadcast_to(image(2), (HEIGHT, WIDTH, 4))), ValueError, "read-only"),
    (lambda: kvimage.Processor(image(1), image(2, HEIGHT, WIDTH + 1)), ValueError, "source's shape"),
    (lambda: kvimage.Keyer(numpy.zeros((0, 5, 4), numpy.uint8)), ValueError, "at least 1x1"),
    (lambda: kvimage.Processor(*[image(1)] * 2), ValueError, "share memory"),
    (lambda: kvimage.Processor(image(1), order="rgba"), ValueError, "'argb'"),
    (lambda: kvimage.Keyer(image(1), order="argb").set_alpha_crop(0.1), ValueError, "BGRA images only"),
    (lambda: kvimage.Processor(image(1)).set_tint("sepia"), ValueError, "'grey'"),
    (lambda: kvimage.Processor(image(1)).set_tint(amount="1"), TypeError, "amount takes numbers"),
    (lambda: kvimage.Processor(image(1)).set_silhouette((1, 2)), ValueError, "colour takes 3 numbers"),
    (lambda: kvimage.Compositor(image(1)).add_layer(image(2)[:, :-1].copy()), kvimage.Error, 1000),
    (lambda: kvimage.Processor(image(1)).set_brightness(0.1, channels=1), kvimage.Error, 10),
    (lambda: kvimage.Keyer(image(1)).set_alpha_stack_blur(2.5), kvimage.Error, 7),
])
def test_refusals(call, error, detail):
    with pytest.raises(error) as raised:
        call()
    if error is kvimage.Error:
        assert (raised.value.code, raised.value.meaning) == (detail, kvimage.result_meaning(detail))
    else:
        assert detail in str(raised.value)


def test_threads_render_at_once_as_one_after_the_other():
    front_ends = [kvimage.Processor(image(seed, 96, 128)).set_stack_blur(5).set_sharpen().set_yuv_blur(3)
                  for seed in (4, 5)]
    expected = [front_end.render().copy() for front_end in front_ends]
    work = [0, 1, 0, 1]  # two threads on each front end as well
    with concurrent.futures.ThreadPoolExecutor(len(work)) as pool:
        results = list(pool.map(lambda i: front_ends[i].render().copy(), work))
    assert all(numpy.array_equal(result, expected[i]) for i, result in zip(work, results))


def test_front_ends_hold_their_arrays_until_they_go():
    expected = kvimage.Compositor(image(3)).add_layer(image(2), 0.5).render().copy()
    background, layer = image(3), image(2)
    held = [weakref.ref(background), weakref.ref(layer)]
    compositor = kvimage.Compositor(background).add_layer(layer, 0.5)
    del background, layer
    gc.collect()
    [image(seed) for seed in range(20)]  # new arrays where freed ones would have been
    assert numpy.array_equal(compositor.render(), expected)
    compositor.clear()
    assert held[0]() is not None and held[1]() is None
    del compositor
    assert held[0]() is None


def test_rgb_conversions():
    rgba = numpy.array([[[10, 20, 30, 40], [50, 60, 70, 80]]], numpy.uint8)
    assert kvimage.from_rgb(rgba).tolist() == [[[30, 20, 10, 40], [70, 60, 50, 80]]]
    assert kvimage.from_rgb(rgba[..., :3]).tolist() == [[[30, 20, 10, 255], [70, 60, 50, 255]]]
    assert numpy.array_equal(kvimage.to_rgba(kvimage.from_rgb(rgba)), rgba)


@pytest.mark.parametrize("backing, subject, key_byte", [((40, 200, 50), (60, 100, 80), 1),
                                                      ((200, 40, 50), (100, 60, 80), 0)], ids=["green", "blue"])
def test_key_and_composite_a_frame(backing, subject, key_byte):
    frame = numpy.full((24, 32, 4), backing + (255,), numpy.uint8)
    frame[8:16, 10:22] = subject + (255,)  # a little of the key colour: a spill to take out
    keyed = kvimage.key(frame)
    others = [keyed[12, 16, b] for b in range(3) if b != key_byte]
    assert keyed[0, 0, 3] == 0 and keyed[12, 16, 3] == 255 and keyed[12, 16, key_byte] <= max(others)
    plate = numpy.full_like(frame, 99)
    shot = kvimage.composite(plate, keyed)
    assert shot[0, 0].tolist() == [99] * 4 and shot[12, 16].tolist() == keyed[12, 16].tolist()
    assert plate.min() == plate.max() == 99
