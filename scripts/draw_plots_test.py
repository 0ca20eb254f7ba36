#!/usr/bin/env python3
"""What is committed can be drawn, what is missing is told by file and name, and what is drawn is still measured."""

import json
import pathlib
import shutil
import tempfile
import unittest

import draw_plots

ROOT = pathlib.Path(__file__).resolve().parent.parent
MEASURED = ROOT / "docs/measured"


class DrawPlots(unittest.TestCase):
    def test_the_committed_measurements_hold_every_plot(self):
        self.assertEqual({path.stem for path in (ROOT / "docs/plots").iterdir()}, set(draw_plots.plots(MEASURED)))

    def test_a_missing_measurement_is_told(self):
        bench = json.loads((MEASURED / "bench.json").read_text(encoding="utf-8"))
        for key, name in [("name", draw_plots.START), ("name", draw_plots.PASS), ("name", draw_plots.IMMEDIATE),
                          ("curve", "boot"), ("curve", "memory")]:
            with self.subTest(name), tempfile.TemporaryDirectory() as folder:
                left = [figure for figure in bench["figures"] if figure.get(key) != name]
                path = pathlib.Path(folder) / "bench.json"
                path.write_text(json.dumps({**bench, "figures": left}), encoding="utf-8")
                with self.assertRaises(draw_plots.Missing) as told:
                    draw_plots.plots(pathlib.Path(folder))
                self.assertIn(f"{path} has no", str(told.exception))
                self.assertIn(f'"{name}"', str(told.exception))

    def test_a_broken_file_is_told(self):
        with tempfile.TemporaryDirectory() as folder:
            shutil.copy(MEASURED / "bench.json", folder)
            for text in ["", '{"soak": []}']:
                (pathlib.Path(folder) / "soak.json").write_text(text, encoding="utf-8")
                with self.subTest(text), self.assertRaisesRegex(draw_plots.Missing, "soak.json"):
                    draw_plots.plots(pathlib.Path(folder))

    def test_the_names_are_those_of_the_measures(self):
        sources = "".join(path.read_text(encoding="utf-8") for path in (ROOT / "bench").glob("measure_*.cpp"))
        for name in [draw_plots.START, draw_plots.PASS, draw_plots.IMMEDIATE, "boot", "memory"]:
            self.assertIn(f'"{name}"', sources)


if __name__ == "__main__":
    unittest.main()
