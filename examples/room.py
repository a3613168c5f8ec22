"""From a Gmsh geometry to a picture of view factors, through the hemiray package.

    PYTHONPATH=build/python /usr/bin/python3 examples/room.py [OUTDIR]

Builds a 4 x 3 x 2.5 m room with a 1 x 1 m skylight in the ceiling and a table
block standing free in it (Gmsh, physical groups "floor", "walls", "ceiling",
"skylight", "table"), imports it with one glob per face, computes the view
factors, writes room.vtu for ParaView and renders room.png: for every face the
view factor to the skylight, the share of the sky's light it can receive.
"""

import os
import sys

import gmsh
import numpy as np

import hemiray

sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
from render import render  # noqa: E402


def build_room(path, size=0.25):
    gmsh.initialize()
    gmsh.option.setNumber("General.Terminal", 0)
    occ = gmsh.model.occ
    room = occ.addBox(0, 0, 0, 4, 3, 2.5)
    skylight = occ.addRectangle(1.5, 1.0, 2.5, 1.0, 1.0)
    occ.fragment([(3, room)], [(2, skylight)])
    table = occ.addBox(1.4, 0.9, 0.0, 1.2, 0.9, 0.75)
    occ.translate([(3, table)], 0, 0, 0.01)  # standing free, just above the floor
    occ.synchronize()
    groups = {"floor": [], "walls": [], "ceiling": [], "skylight": [], "table": []}
    table_box = gmsh.model.getBoundingBox(3, table)
    for _, tag in gmsh.model.getEntities(2):
        lo_hi = gmsh.model.getBoundingBox(2, tag)
        centre = [(lo_hi[k] + lo_hi[k + 3]) / 2 for k in range(3)]
        if all(table_box[k] - 1e-6 <= centre[k] <= table_box[k + 3] + 1e-6 for k in range(3)):
            groups["table"].append(tag)
        elif abs(centre[2]) < 1e-6:
            groups["floor"].append(tag)
        elif abs(centre[2] - 2.5) < 1e-6:
            small = lo_hi[3] - lo_hi[0] < 1.0 + 1e-6  # the ceiling around it spans the room
            groups["skylight" if small else "ceiling"].append(tag)
        else:
            groups["walls"].append(tag)
    for name, tags in groups.items():
        gmsh.model.setPhysicalName(2, gmsh.model.addPhysicalGroup(2, tags), name)
    gmsh.option.setNumber("Mesh.MeshSizeMax", size)
    gmsh.model.mesh.generate(2)
    gmsh.write(path)
    gmsh.finalize()


def run(folder):
    os.makedirs(folder, exist_ok=True)
    mesh_path = os.path.join(folder, "room.msh")
    model_path = os.path.join(folder, "room.model")
    build_room(mesh_path)
    # Gmsh orients the boundary of each volume outward; flipping turns the room's
    # faces to its inside and keeps the table's facing the room. The same as
    #   python3 -m hemiray import room.msh -o room.model --glob-per-face --flip
    import meshio
    model = hemiray.Model.from_meshio(meshio.read(mesh_path), glob_per_face=True, flip=True)
    model.write(model_path)
    result = hemiray.view_factors(model, resolution=40)

    skylight = model.part_names.index("skylight")
    skylight_globs = np.unique(model.face_globs[model.face_zones == skylight])
    to_skylight = np.asarray(result.matrix[:, skylight_globs].sum(axis=1)).ravel()
    vtu = os.path.join(folder, "room.vtu")
    result.to_vtu(vtu, fields={"F_to_skylight": to_skylight})
    print(f"{vtu}: {model.face_count} faces; row sums {result.row_sums.min():.6f} to "
          f"{result.row_sums.max():.6f}")

    png = os.path.join(folder, "room.png")
    low, high = render(meshio.read(vtu), "F_to_skylight", png, eye=(6.3, -2.6, 4.4),
                       target=(2.0, 1.5, 0.8))
    print(f"{png}: view factor to the skylight, {low:.3f} (dark) to {high:.3f} (yellow)")


if __name__ == "__main__":
    run(sys.argv[1] if len(sys.argv) > 1 else "hemiray-room")
