"""A small headless renderer for the examples: draws the faces of a VTU (or any
meshio mesh) coloured by one cell field into a PNG, with numpy and zlib only.

Faces whose area vector points away from the camera are left out. Hemiray's
walls face the inside of the room, so the camera looks through the near walls
and the ceiling into the room and sees the far walls, the floor and whatever
stands on it.
"""

import struct
import zlib

import numpy as np

# Viridis at five stops, interpolated linearly.
STOPS = np.array([[68, 1, 84], [59, 82, 139], [33, 145, 140], [94, 201, 98], [253, 231, 37]], float)


def colormap(values, low, high):
    t = np.clip((values - low) / (high - low if high > low else 1.0), 0.0, 1.0) * (len(STOPS) - 1)
    k = np.minimum(t.astype(int), len(STOPS) - 2)
    f = (t - k)[:, None]
    return STOPS[k] * (1 - f) + STOPS[k + 1] * f


def write_png(path, image):
    """image: (height, width, 3) uint8."""
    height, width, _ = image.shape
    raw = b"".join(b"\0" + image[y].tobytes() for y in range(height))

    def chunk(kind, data):
        crc = zlib.crc32(kind + data)
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", crc)

    with open(path, "wb") as out:
        out.write(b"\x89PNG\r\n\x1a\n")
        out.write(chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0)))
        out.write(chunk(b"IDAT", zlib.compress(raw, 9)))
        out.write(chunk(b"IEND", b""))


def render(mesh, field, path, eye, target, width=900, height=650, bar_label_range=None):
    """Renders the mesh's polygons coloured by cell field `field` as seen from eye."""
    points = np.asarray(mesh.points, float)
    triangles, values = [], []
    for block, data in zip(mesh.cells, mesh.cell_data[field]):
        for cell, value in zip(block.data, data):
            for k in range(1, len(cell) - 1):
                triangles.append([cell[0], cell[k], cell[k + 1]])
                values.append(value)
    triangles, values = np.array(triangles), np.array(values, float)

    eye, target = np.asarray(eye, float), np.asarray(target, float)
    forward = (target - eye) / np.linalg.norm(target - eye)
    right = np.cross(forward, [0.0, 0.0, 1.0])
    right /= np.linalg.norm(right)
    up = np.cross(right, forward)
    corners = points[triangles]
    normals = np.cross(corners[:, 1] - corners[:, 0], corners[:, 2] - corners[:, 0])
    facing = np.einsum("ij,ij->i", normals, corners[:, 0] - eye) < 0
    triangles, values, corners = triangles[facing], values[facing], corners[facing]

    relative = corners - eye
    depth = relative @ forward
    scale = 0.9 * height
    x = width / 2 + scale * (relative @ right) / depth
    y = height / 2 - scale * (relative @ up) / depth
    finite = values[np.isfinite(values)]
    low, high = bar_label_range or (finite.min(), finite.max())
    colours = colormap(values, low, high)

    image = np.full((height, width, 3), 255.0)
    zbuffer = np.full((height, width), np.inf)
    for t in range(len(triangles)):
        xs, ys, zs = x[t], y[t], depth[t]
        x0, x1 = max(int(xs.min()), 0), min(int(xs.max()) + 1, width)
        y0, y1 = max(int(ys.min()), 0), min(int(ys.max()) + 1, height)
        if x0 >= x1 or y0 >= y1:
            continue
        px, py = np.meshgrid(np.arange(x0, x1) + 0.5, np.arange(y0, y1) + 0.5)
        d = (ys[1] - ys[2]) * (xs[0] - xs[2]) + (xs[2] - xs[1]) * (ys[0] - ys[2])
        if abs(d) < 1e-12:
            continue
        a = ((ys[1] - ys[2]) * (px - xs[2]) + (xs[2] - xs[1]) * (py - ys[2])) / d
        b = ((ys[2] - ys[0]) * (px - xs[2]) + (xs[0] - xs[2]) * (py - ys[2])) / d
        c = 1 - a - b
        inside = (a >= 0) & (b >= 0) & (c >= 0)
        z = a * zs[0] + b * zs[1] + c * zs[2]
        region = zbuffer[y0:y1, x0:x1]
        nearer = inside & (z < region)
        region[nearer] = z[nearer]
        # Flat colour, a little darker towards the triangle's edges for the mesh lines.
        edge = np.minimum(np.minimum(a, b), c) < 0.02
        shade = np.where(edge, 0.75, 1.0)[..., None]
        image[y0:y1, x0:x1][nearer] = (colours[t] * shade)[nearer]

    # A colour bar along the bottom.
    bar = colormap(np.linspace(low, high, width - 80), low, high)
    image[height - 30:height - 15, 40:width - 40] = bar[None, :, :]
    write_png(path, image.astype(np.uint8))
    return low, high
