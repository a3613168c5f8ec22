"""The Python package end to end: imports, an analytic case, result round trips,
VTU export and refusals. The numbers themselves are pinned by the C++ tests."""

import os
import subprocess

import meshio
import numpy as np
import pytest

import hemiray
from hemiray.__main__ import main

TOOL = os.environ.get("HEMIRAY_TOOL")
# Unit cube, corners numbered by their bits (x = 1, y = 2, z = 4); walls whose
# nodes run counter-clockwise seen from inside, so their area vectors face inward.
CUBE = np.array([[x, y, z] for z in (0, 1) for y in (0, 1) for x in (0, 1)], float)
WALLS = {"bottom": [0, 1, 3, 2], "top": [4, 6, 7, 5], "front": [0, 4, 5, 1],
         "back": [2, 3, 7, 6], "left": [0, 2, 6, 4], "right": [1, 5, 7, 3]}


def cube_mesh(walls=WALLS):
    quads = np.array(list(walls.values()))
    sets = {name: [np.array([k])] for k, name in enumerate(walls)}
    return meshio.Mesh(CUBE, [("quad", quads)], cell_sets=sets)


def gmsh_box(path):
    gmsh = pytest.importorskip("gmsh")
    gmsh.initialize()
    gmsh.option.setNumber("General.Terminal", 0)
    gmsh.model.occ.addBox(0, 0, 0, 1, 1, 1)
    gmsh.model.occ.synchronize()
    for _, tag in gmsh.model.getEntities(2):
        gmsh.model.setPhysicalName(2, gmsh.model.addPhysicalGroup(2, [tag]), f"side{tag}")
    gmsh.option.setNumber("Mesh.MeshSizeMax", 0.4)
    gmsh.model.mesh.generate(2)
    gmsh.write(str(path))
    gmsh.finalize()


def test_gmsh_box_imports_with_one_glob_per_group_and_closes(tmp_path):
    gmsh_box(tmp_path / "box.msh")
    model_path = str(tmp_path / "box.model")
    # Gmsh orients a box's faces outward: refused with the parts named, then flipped.
    assert main(["import", str(tmp_path / "box.msh"), "-o", model_path]) == 1
    assert main(["import", str(tmp_path / "box.msh"), "-o", model_path, "--flip"]) == 0
    model = hemiray.read_model(model_path)
    assert model.glob_count == 6 and np.all(model.face_globs >= 0)
    result = hemiray.view_factors(model, resolution=8, threads=2)
    np.testing.assert_allclose(result.row_sums, 1.0, atol=1e-12)
    np.testing.assert_allclose(result.areas, 1.0, rtol=1e-12)


def test_stl_orientation_is_checked_and_flipped(tmp_path):
    triangles = [t for q in WALLS.values() for t in ([q[0], q[1], q[2]], [q[0], q[2], q[3]])]
    triangles[5] = triangles[5][::-1]
    path = tmp_path / "cube.stl"
    meshio.write(path, meshio.Mesh(CUBE, [("triangle", np.array(triangles))]))
    with pytest.raises(ValueError, match="orientation is mixed in the surface of parts "
                                         "surface: 1 of 12 faces"):
        hemiray.Model.from_meshio(meshio.read(path))
    model = hemiray.Model.from_meshio(meshio.read(path), flip=True, glob_per_face=True)
    result = hemiray.view_factors(model, resolution=8, threads=1)
    np.testing.assert_allclose(result.row_sums, 1.0, atol=1e-12)


def test_a_volume_mesh_gives_its_boundary_facing_inward():
    hexes = np.array([[0, 1, 3, 2, 4, 5, 7, 6]])  # the unit cube in VTK's node order
    model = hemiray.Model.from_meshio(meshio.Mesh(CUBE, [("hexahedron", hexes)]),
                                      glob_per_face=True)
    assert model.part_names == ["boundary"] and model.face_count == 6
    result = hemiray.view_factors(model, resolution=8, threads=1)
    np.testing.assert_allclose(result.row_sums, 1.0, atol=1e-12)


def test_subdivided_cube_gives_the_analytic_factor_of_opposite_walls():
    coarse = hemiray.Model.from_meshio(cube_mesh())
    fine = hemiray.Model.from_meshio(cube_mesh(), subdivide_size=0.125)
    assert (coarse.face_count, fine.face_count, fine.glob_count) == (6, 6 * 64, 6)
    exact = 0.1998243  # two unit squares facing each other at distance 1
    top = list(WALLS).index("top")
    for model, tolerance in ((coarse, 0.05), (fine, 2e-3)):
        factor = hemiray.view_factors(model, resolution=40, threads=2).matrix[0, top]
        assert abs(factor - exact) < tolerance
    assert hemiray.view_factors(coarse, resolution=40, threads=2).matrix[0, top] > 0.23


def test_per_face_sampling_ignores_threads_and_repair_balances_the_cube():
    model = hemiray.Model.from_meshio(cube_mesh(), subdivide_size=0.5)
    one, two = (hemiray.view_factors(model, resolution=6, threads=t, sampling="per-face", seed=7)
                for t in (1, 2))
    assert (one.matrix != two.matrix).nnz == 0
    repaired, report = one.repair()
    assert report["before"]["weighted_reciprocity"] > 1e-6
    assert np.abs(repaired.row_sums - 1).max() < 1e-12
    assert abs(repaired.reciprocity_residuals).max() < 1e-12


@pytest.mark.parametrize("dimension,area", [(2, 2.0), (1, 2 * np.pi * 1.0 * 2.0)])
def test_segment_areas_are_lengths_or_revolved_areas(dimension, area):
    model = hemiray.Model([[0.0, 1.0], [2.0, 1.0]], [[0, 1]], dimension=dimension)
    np.testing.assert_allclose(model.glob_areas, [area], rtol=1e-15)


def test_two_sided_plate_is_seen_from_both_sides():
    points = np.array([[0, 0, 0], [1, 0, 0], [1, 1, 0], [0, 1, 0]], float)
    mesh = meshio.Mesh(points, [("quad", np.array([[0, 1, 2, 3]]))], cell_sets={"fin": [[0]]})
    model = hemiray.Model.from_meshio(mesh, two_sided=["fin"])
    assert model.part_names == ["fin", "fin back"] and model.glob_count == 2

    def normal(f):
        p = model.nodes[model.face_nodes[model.face_offsets[f]:model.face_offsets[f + 1]]]
        return np.cross(p[1] - p[0], p[2] - p[0])
    assert normal(0)[2] * normal(1)[2] < 0


@pytest.mark.skipif(TOOL is None, reason="HEMIRAY_TOOL names the hemiray tool")
@pytest.mark.parametrize("name,flags,tolerance", [("r.vf", [], 5e-7), ("r.vf", ["--binary"], 1e-7),
                                                  ("r.vf.gz", [], 5e-7), ("r.h5", [], 0)])
def test_every_result_kind_reads_back_as_the_python_run(tmp_path, name, flags, tolerance):
    model = hemiray.Model.from_meshio(cube_mesh(), subdivide_size=0.5, glob_per_face=True)
    model.write(tmp_path / "m.gz")
    assert np.array_equal(hemiray.read_model(tmp_path / "m.gz").nodes, model.nodes)
    subprocess.run([TOOL, "run", str(tmp_path / "m.gz"), "-o", str(tmp_path / name),
                    "--threads", "2", *flags], check=True, capture_output=True)
    ours = hemiray.view_factors(model, threads=2)
    theirs = hemiray.read_result(tmp_path / name)
    assert np.array_equal(theirs.model.face_nodes, model.face_nodes)
    assert np.array_equal(theirs.active, ours.active)
    assert abs(theirs.matrix - ours.matrix).max() <= tolerance
    np.testing.assert_allclose(theirs.areas, ours.areas, rtol=1e-15)
    if name.endswith(".h5"):
        import h5py
        with h5py.File(tmp_path / name) as f:
            assert np.array_equal(f["globArea"][...], ours.areas)

        vtu = tmp_path / "r.vtu"
        assert main(["export", str(tmp_path / name), "-o", str(vtu), "--to", "3"]) == 0
        back = meshio.read(vtu)
        globs = back.cell_data["glob"][0]
        np.testing.assert_allclose(back.cell_data["row_sum"][0], ours.row_sums[globs])
        np.testing.assert_allclose(back.cell_data["F_to_3"][0],
                                   ours.matrix[:, 3].toarray().ravel()[globs])


def test_bad_models_raise_with_the_library_message(tmp_path):
    quad = [[0, 1, 2, 3]]
    square = np.array([[0, 0, 0], [1, 0, 0], [1, 1, 0], [0, 1, 0]], float)
    cases = [
        (lambda: hemiray.Model(square, [[0, 1, 2, 7]]), "node number out of range"),
        (lambda: hemiray.Model(square, quad, dimension=4), "dimension 4 in the size section"),
        (lambda: hemiray.Model(square, quad, zone_types=[1, 1], face_zones=[0],
                               periodic=[{"zone": 9, "shadow": 1, "shift": (1, 0, 0)}]),
         "invalid id index"),
        (lambda: hemiray.view_factors(hemiray.Model(square, quad), resolution=4096),
         "hemisphere resolution 4096 is outside"),
        (lambda: hemiray.read_model(tmp_path / "bad.msh"), "unknown sectionId"),
        (lambda: hemiray.read_result(tmp_path / "bad.msh"), "no view-factor rows|unknown"),
        (lambda: hemiray.read_model(tmp_path / "bad-parameters.msh"), "reading parameter section"),
    ]
    (tmp_path / "bad.msh").write_text("(1 0 1 1 3)\n(1 8 0 0.5 1 1 0.25 2 3 1e-3 4 5 6)\n(77 ())\n")
    (tmp_path / "bad-parameters.msh").write_text("(1 0 1 1 3)\n(1 8 x)\n")
    for make, message in cases:
        with pytest.raises(ValueError, match=message):
            make()
    with pytest.raises(ValueError, match="sampling"):
        hemiray.view_factors(hemiray.Model(square, quad), sampling="random")
