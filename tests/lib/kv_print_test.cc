// Proves the text forms: real JSON and XML parsers must read them back, and a few goldens pin the
// layout byte by byte.

#include "tests/lib/file_fixture.h"
#include "tests/lib/kv_sample.h"

namespace {

std::string printed(void (*print)(qz_stream*, int, const propset*), int level, const propset* set) {
    const stream_ptr stream(new_qz_stream(0));
    print(stream.get(), level, set);
    return {reinterpret_cast<char*>(stream->data), stream->length};
}

using text_forms = file_test;

// Reads both forms of the sample and compares them with each other and with its values.
const char* const parsers = R"(
import json, sys, xml.etree.ElementTree as tree
guid = "{01234567-89ab-cdef-0102-030405060708}"
expected = {
    "a_bool": ("boolean", "True"), "b_i32": ("int32", -2), "c_u32": ("uint32", 4000000000),
    "d_i64": ("int64", -2**40 - 3), "e_u64": ("uint64", 2**63 + 7), "f_str": ("string", "h\u00e9y!"),
    "g_wstr": ("wstring", "h\u20ac\U0001f600"), "h_bin": ("binary", "AP8Q"),
    "i_guid": ("guid", guid), "j_set": ("property_set", {"in": ""}), "k_objid": ("objid", guid),
    "l_time": ("time", 1700000000), "m_arr": ("int32", [1, -1, 7]), "n_sarr": ("string", ["x", ""]),
    "o_obj": ("object", {})}
document = json.load(open(sys.argv[1], encoding="utf-8"))
assert document == {name: value for name, (_, value) in expected.items()}, document
def content(value):
    array, data = value.find("array"), value.find("data")
    if array is not None:
        return array.get("datatype"), [content(v)[1] for v in array.findall("value")]
    kind, text = data.get("datatype"), data.text
    if kind in ("property_set", "object"):
        return kind, {name: inner for name, (_, inner) in entries(data).items()}
    text = text if kind == "binary" else text[1:]
    return kind, int(text) if kind == "time" or "int" in kind else text
def entries(element):
    return {e.find("name").text: content(e.find("value")) for e in element.findall("kv")}
found = entries(tree.fromstring("<r>" + open(sys.argv[2], encoding="utf-8").read() + "</r>"))
assert found == expected, found
)";

TEST_F(text_forms, are_read_by_real_parsers) {
    const propset_ptr set = every_type();
    write(path("json"), printed(ps_printjson, 0, set.get()));
    write(path("xml"), printed(ps_print, 0, set.get()));
    write(path("parsers.py"), parsers);
    const std::string command = std::string(DOVMAD_PYTHON) + " " + path("parsers.py") + " ";
    EXPECT_EQ(std::system((command + path("json") + " " + path("xml")).c_str()), 0);
    EXPECT_EQ(ps_compare(set.get(), every_type().get()), 1);  // printing changes nothing
}

TEST_F(text_forms, layout) {
    const propset_ptr set(new_ps(0));
    EXPECT_EQ(printed(ps_printjson, 0, set.get()), "  {\n}");
    add(set.get(), "a", KV_INT32, std::int32_t{5});
    EXPECT_EQ(printed(ps_printjson, 0, set.get()), "  {\n    \"a\" :     5\n}");
    add_array<std::int32_t>(set.get(), "b", KV_INT32, {1, 1});
    EXPECT_EQ(printed(ps_printjson, 1, set.get()),
              "    {\n      \"a\" :       5,\n      \"b\" :       [\n        1,\n        1\n"
              "      ]\n  }");

    const propset_ptr outer(new_ps(0));
    const propset_ptr inner(new_ps(0));
    add(inner.get(), "a&b", KV_INT32, std::int32_t{5});
    add_set(outer.get(), "s", KV_PROPERTY_SET, inner.get());
    EXPECT_EQ(printed(ps_print, 1, outer.get()),
              "  <kv>\n"
              "    <name>s</name>\n"
              "    <value>\n"
              "      <data datatype=\"property_set\">\n"
              "        <kv>\n"
              "          <name>a&amp;b</name>\n"
              "          <value>\n"
              "            <data datatype=\"int32\"> 5</data>\n"
              "          </value>\n"
              "        </kv>\n"
              "      </data>\n"
              "    </value>\n"
              "  </kv>\n");
}

TEST_F(text_forms, of_odd_values) {
    const propset_ptr set(new_ps(0));
    add(set.get(), "a", KV_STRING | KV_WIRE, "\0\0\0\1a");
    add(set.get(), "b", KV_STRING, "a\"<b> & c");
    const char16_t lone_surrogates[] = {u'\u00fc', 0xd800, u'!', 0xdc00, 0};
    add(set.get(), "c", KV_WSTRING, lone_surrogates);
    EXPECT_EQ(printed(ps_printjson, 0, set.get()),
              "  {\n    \"a\" :     null,\n    \"b\" :     \"a'<b> & c\",\n"
              "    \"c\" :     \"\u00fc\ufffd!\ufffd\"\n}");
    const std::string xml = printed(ps_print, 0, set.get());
    EXPECT_TRUE(contains(xml, "<name>a</name>\n  <value>\n  </value>\n"));
    EXPECT_TRUE(contains(xml, "> a\"&lt;b&gt; &amp; c</data>\n"));
}

TEST_F(text_forms, dumps_are_framed_with_rules) {
    const propset_ptr set(new_ps(0));
    add(set.get(), "a", KV_INT32, std::int32_t{5});
    testing::internal::CaptureStderr();
    display_propset(set.get(), "title");
    display_propset_json(set.get(), "%s");
    display_propset(nullptr, "title");
    ps_print_to_jsonfile(set.get(), 0, stderr);
    ps_print_to_jsonfile(nullptr, 0, stderr);
    const auto frame = [](const std::string& name, const std::string& title,
                          const std::string& body) {
        const std::string prefix = "hobintf: " + name + ": ";
        const std::string rule = prefix + std::string(41, '-') + "\n";
        const std::string end = std::string(15, '-') + " END " + std::string(21, '-') + "\n";
        return rule + prefix + title + "\n" + rule + body + prefix + end;
    };
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              frame("display_propset", "title", printed(ps_print, 4, set.get())) +
                  frame("display_propset_json", "%s", printed(ps_printjson, 0, set.get())) +
                  printed(ps_printjson, 0, set.get()));
}

}  // namespace
