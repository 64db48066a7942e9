"""The check of keys that hold vectors, on small sources."""

import unittest

import ordered_keys


class OrderedKeysTest(unittest.TestCase):
    def found(self, text, **headers):
        texts = {"Door.h": text, **{f"{name}.h": header for name, header in headers.items()}}
        return ordered_keys.findings(texts, ["Door.h"])

    def test_a_key_that_holds_a_vector_is_found(self):
        for key in ("std::vector<uint32_t>", "std::vector<std::uint16_t>", "std::vector<int>",
                    "std::vector<unsigned long>", "std::vector<size_t>",
                    "std::pair<uint32_t, std::vector<uint32_t>>",
                    "std::tuple<std::vector<uint64_t>, int>",
                    "std::vector<std::vector<uint32_t>>"):
            for container in (f"std::map<{key}, Door*>", f"std::set<{key}>",
                              f"std::multimap<{key}, std::map<int, int>>",
                              f"std::multiset<{key}>", f"std::priority_queue<{key}>"):
                with self.subTest(container=container):
                    name = container.split("<")[0]
                    self.assertEqual(self.found(f"\n{container} doors_;\n"),
                                     [f"Door.h:2: {name} needs an order of its own"])

    def test_keys_with_a_right_order_are_no_findings(self):
        for text in ("std::map<uint32_t, std::vector<uint32_t>> doors_;",
                     "std::map<std::vector<uint32_t>, Door*, ElementOrder> doors_;",
                     "std::set<std::vector<uint32_t>, ElementOrder> doors_;",
                     "std::set<std::vector<uint8_t>> doors_;",
                     "std::set<std::vector<unsigned char>> doors_;",
                     "std::set<std::vector<std::string>> doors_;",
                     "std::unordered_map<std::vector<uint32_t>, Door*> doors_;",
                     "// std::set<std::vector<uint32_t>> doors_;"):
            with self.subTest(text=text):
                self.assertEqual(self.found(text), [])

    def test_a_key_is_known_by_its_other_names(self):
        key = "using Path = std::vector<uint32_t>;\n"
        topic = "using Topic = std::pair<uint32_t, Path>;\n"
        for text, headers in ((key + topic + "std::set<Topic> doors_;", {}),
                              ('#include "Key.h"\n\nstd::set<Path> doors_;', {"Key": key}),
                              ('#include "Topic.h"\n\nstd::set<Topic> doors_;',
                               {"Topic": '#include "Key.h"\n' + topic, "Key": key})):
            with self.subTest(text=text):
                self.assertEqual(self.found(text, **headers),
                                 ["Door.h:3: std::set needs an order of its own"])

    def test_the_same_name_elsewhere_is_another_type(self):
        self.assertEqual(self.found('#include "Key.h"\nusing Path = std::pair<int, int>;\n'
                                    "std::set<Path> doors_;",
                                    Key="using Path = std::vector<uint32_t>;"), [])
        self.assertEqual(self.found("std::set<Path> doors_;",
                                    Key="using Path = std::vector<uint32_t>;"), [])

    def test_a_derived_order_over_a_vector_is_found(self):
        derived = "auto operator<=>(const Door&) const = default;\n"
        for member in ("std::vector<uint32_t> path;", "std::vector<uint32_t> path = {20, 0};",
                       "std::optional<Path> path;"):
            with self.subTest(member=member):
                self.assertEqual(self.found("using Path = std::vector<uint32_t>;\n"
                                            f"struct Door {{\n{member}\n{derived}}};"),
                                 ["Door.h:2: Door must not derive its order"])

    def test_other_types_are_no_findings(self):
        for text in ("struct Door {\nstd::vector<uint32_t> path;\n"
                     "bool operator==(const Door&) const = default;\n};",
                     "struct Door {\nuint32_t number = 0;\n"
                     "void open(const std::vector<uint32_t>& path);\n"
                     "auto operator<=>(const Door&) const = default;\n};"):
            with self.subTest(text=text):
                self.assertEqual(self.found(text), [])


if __name__ == "__main__":
    unittest.main()
