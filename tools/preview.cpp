#include "tools/preview.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <zlib.h>

#include <fstream>
#include <ostream>
#include <sstream>

#include "platform/portable/portable_pictures.h"
#include "ribbon/main2.h"
#include "tools/session.h"

namespace tabforge::cli {
namespace {

// A framed landscape: any picture, none in particular.
constexpr const char* kBuiltInGlyph =
    "<rect x=\"1.5\" y=\"2.5\" width=\"13\" height=\"11\" rx=\"1.5\" fill=\"#eef4fb\" "
    "stroke=\"#7d8fa3\"/><path d=\"M3.5 11.5l3-4 2 2.5 1.5-1.5 2.5 3z\" fill=\"#7d8fa3\"/>"
    "<circle cx=\"10.5\" cy=\"5.5\" r=\"1.3\" fill=\"#7d8fa3\"/>";

constexpr const char* kStyle = R"(
body { margin: 0; font: 12px "Segoe UI", "DejaVu Sans", sans-serif; background: #e8e8e8; }
.tab { margin: 8px; }
.tab > h2 { display: inline-block; margin: 0; padding: 3px 14px; font-size: 12px;
  font-weight: normal; background: #f8f8f8; border: 1px solid #c6c6c6; border-bottom: none; }
.strip { display: flex; background: #f8f8f8; border: 1px solid #c6c6c6; min-height: 96px; }
.group { display: flex; flex-direction: column; border-right: 1px solid #d4d4d4; padding: 2px 4px; }
.group > .controls { display: flex; flex-direction: column; flex-wrap: wrap; height: 78px;
  align-content: flex-start; gap: 1px 4px; }
.group > .name { text-align: center; color: #555; padding-top: 2px; white-space: nowrap; }
.builtin { color: #888; font-style: italic; justify-content: center; min-width: 120px; }
button { font: inherit; color: #222; background: none; border: 1px solid transparent;
  border-radius: 2px; padding: 1px 3px; display: flex; align-items: center; gap: 4px;
  white-space: nowrap; }
button.large { flex-direction: column; height: 78px; width: 68px; white-space: normal;
  justify-content: flex-start; text-align: center; }
button.normal { height: 25px; }
button[aria-pressed="true"] { background: #c5d9f1; border-color: #7da2ce; }
button[disabled] { color: #a0a0a0; }
button[disabled] img { opacity: 0.4; filter: grayscale(1); }
.buttonGroup { display: flex; border: 1px solid #c6c6c6; border-radius: 2px; height: 25px; }
.buttonGroup > button { border-right: 1px solid #d4d4d4; }
.split { position: relative; display: flex; flex-direction: column; height: 78px;
  border: 1px solid #c6c6c6; border-radius: 2px; }
.split > .arrow { text-align: center; border-top: 1px solid #d4d4d4; font-size: 9px; }
.menu { position: absolute; top: 80px; left: 0; z-index: 1; background: #fff;
  border: 1px solid #a0a0a0; box-shadow: 2px 2px 4px #888; min-width: 340px; }
.menu > button.item { width: 100%; height: 44px; white-space: normal; text-align: left; }
.menu .text { display: flex; flex-direction: column; }
.menu .description { color: #666; font-size: 11px; }
.separator { border-left: 1px solid #d4d4d4; margin: 2px; }
.mso, .missing { display: inline-flex; align-items: center; justify-content: center;
  font-size: 8px; overflow: hidden; box-sizing: border-box; flex: none; }
.missing { border: 2px dashed #d22; color: #d22; font-weight: bold; }
.below { display: flex; padding-left: 400px; }
)";

std::string Escape(std::string_view text) {
  std::string out;
  for (char c : text) {
    switch (c) {
      case '&':
        out += "&amp;";
        break;
      case '<':
        out += "&lt;";
        break;
      case '>':
        out += "&gt;";
        break;
      case '"':
        out += "&quot;";
        break;
      case '\n':
        out += "&#10;";
        break;
      default:
        out += c;
    }
  }
  return out;
}

std::string Base64(const std::vector<std::uint8_t>& bytes) {
  static constexpr char kDigits[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  for (std::size_t i = 0; i < bytes.size(); i += 3) {
    std::uint32_t n = static_cast<std::uint32_t>(bytes[i]) << 16;
    if (i + 1 < bytes.size())
      n |= static_cast<std::uint32_t>(bytes[i + 1]) << 8;
    if (i + 2 < bytes.size())
      n |= bytes[i + 2];
    out += kDigits[(n >> 18) & 63];
    out += kDigits[(n >> 12) & 63];
    out += i + 1 < bytes.size() ? kDigits[(n >> 6) & 63] : '=';
    out += i + 2 < bytes.size() ? kDigits[n & 63] : '=';
  }
  return out;
}

void PutChunk(std::vector<std::uint8_t>& png, const char* type,
              const std::vector<std::uint8_t>& data) {
  const auto put32 = [&](std::uint32_t v) {
    for (int shift = 24; shift >= 0; shift -= 8)
      png.push_back(static_cast<std::uint8_t>(v >> shift));
  };
  put32(static_cast<std::uint32_t>(data.size()));
  const std::size_t start = png.size();
  png.insert(png.end(), type, type + 4);
  png.insert(png.end(), data.begin(), data.end());
  put32(static_cast<std::uint32_t>(
      crc32(0, png.data() + start, static_cast<uInt>(png.size() - start))));
}

std::string Attribute(xmlNode* node, const char* name) {
  xmlChar* value = xmlGetProp(node, reinterpret_cast<const xmlChar*>(name));
  std::string text = value != nullptr ? reinterpret_cast<const char*>(value) : "";
  xmlFree(value);
  return text;
}

bool Has(xmlNode* node, const char* name) {
  return xmlHasProp(node, reinterpret_cast<const xmlChar*>(name)) != nullptr;
}

std::string Name(xmlNode* node) {
  return reinterpret_cast<const char*>(node->name);
}

std::vector<xmlNode*> Children(xmlNode* node) {
  std::vector<xmlNode*> out;
  for (xmlNode* child = node->children; child != nullptr; child = child->next) {
    if (child->type == XML_ELEMENT_NODE)
      out.push_back(child);
  }
  return out;
}

// Draws one element of the document and what it holds, asking Main2 each callback it names.
class Painter {
 public:
  explicit Painter(Main2& main2) : main2_(main2) {}

  std::string Page(xmlNode* root) {
    std::string top;
    std::string below;
    for (xmlNode* ribbon : Children(root)) {
      for (xmlNode* tabs : Children(ribbon)) {
        for (xmlNode* tab : Children(tabs)) {
          // The add-in's own tab comes first, as after activateMorvelinTab; a built-in tab shows
          // where the add-in's groups go among its own.
          (Has(tab, "idMso") ? below : top) += Tab(tab);
        }
      }
    }
    return "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">"
           "<title>Ribbon preview</title><style>" +
           std::string(kStyle) + "</style></head><body>\n" + top + "<div class=\"below\">" + below +
           "</div>\n</body></html>\n";
  }

 private:
  Utf16String Id(xmlNode* node) { return FromUtf8(Attribute(node, "id")); }

  std::string Label(xmlNode* node) {
    if (Has(node, "getLabel"))
      return ToUtf8(main2_.GetLabel(Id(node)));
    return Attribute(node, "label");
  }

  // The tooltip: the screentip (or else the label) over the supertip.
  std::string Tip(xmlNode* node, const std::string& label) {
    std::string tip = Has(node, "getScreentip") ? ToUtf8(main2_.GetScreentip(Id(node)))
                                                : Attribute(node, "screentip");
    if (tip.empty())
      tip = label;
    const std::string super = Attribute(node, "supertip");
    if (!super.empty() && super != tip)
      tip += "\n" + super;
    return tip;
  }

  std::string Picture(xmlNode* node, int size) {
    const std::string box =
        " style=\"width:" + std::to_string(size) + "px;height:" + std::to_string(size) + "px\"";
    if (Has(node, "imageMso")) {
      // The word processor's own pictures are not ours to draw: a neutral glyph of the picture's
      // size stands for one, and its name goes in the tooltip.
      const std::string mso = Escape(Attribute(node, "imageMso"));
      const std::string side = std::to_string(size);
      return "<span class=\"mso\" role=\"img\" aria-label=\"built-in image " + mso +
             "\" title=\"built-in image " + mso + "\"" + box + "><svg width=\"" + side +
             "\" height=\"" + side + "\" viewBox=\"0 0 16 16\" aria-hidden=\"true\">" +
             kBuiltInGlyph + "</svg></span>";
    }
    Ref<Object> picture;
    if (Has(node, "getImage")) {
      picture = main2_.GetImage(Id(node));
    } else if (Has(node, "image")) {
      picture = main2_.LoadImage(FromUtf8(Attribute(node, "image")));
    } else {
      return "";
    }
    const auto* portable = dynamic_cast<PortablePicture*>(picture.get());
    if (portable == nullptr)
      return "<span class=\"missing\" title=\"no picture\"" + box + ">?</span>";
    const PortableBitmap& bitmap = portable->bitmap();
    return "<img alt=\"\" width=\"" + std::to_string(size) + "\" height=\"" + std::to_string(size) +
           "\" data-width=\"" + std::to_string(bitmap.width) + "\" data-height=\"" +
           std::to_string(bitmap.height) + "\" src=\"data:image/png;base64," +
           Base64(EncodePng(bitmap)) + "\">";
  }

  // The attributes shared by every drawn control: its id, tip, state.
  std::string ControlAttributes(xmlNode* node, const std::string& classes,
                                const std::string& label) {
    std::string out = " class=\"" + classes;
    const bool disabled = Has(node, "getEnabled") ? !IsTrue(main2_.GetEnabled(Id(node)))
                                                  : Attribute(node, "enabled") == "false";
    if (disabled)
      out += " disabled";
    out += "\" data-id=\"" + Escape(Attribute(node, "id")) + "\" title=\"" +
           Escape(Tip(node, label)) + "\" aria-label=\"" + Escape(label) + "\"";
    if (Has(node, "keytip"))
      out += " data-keytip=\"" + Escape(Attribute(node, "keytip")) + "\"";
    if (Name(node) == "toggleButton") {
      const bool pressed = Has(node, "getPressed") && IsTrue(main2_.GetPressed(Id(node)));
      out += std::string(" aria-pressed=\"") + (pressed ? "true" : "false") + "\"";
    }
    if (disabled)
      out += " disabled";
    return out;
  }

  std::string Button(xmlNode* node, const std::string& place) {
    const std::string label = Label(node);
    const bool showLabel = Attribute(node, "showLabel") != "false";
    std::string size = Attribute(node, "size") == "large" ? "large" : "normal";
    if (place == "buttonGroup")
      size = "normal";
    if (place == "menu") {
      const int icon = itemSize_ == "large" ? 32 : 16;
      return "<button" + ControlAttributes(node, "item", label) + ">" + Picture(node, icon) +
             "<span class=\"text\"><b class=\"label\">" + Escape(label) +
             "</b><span class=\"description\">" + Escape(Attribute(node, "description")) +
             "</span></span></button>";
    }
    return "<button" + ControlAttributes(node, size, label) + ">" +
           Picture(node, size == "large" ? 32 : 16) +
           (showLabel ? "<span class=\"label\">" + Escape(label) + "</span>" : "") + "</button>";
  }

  std::string Control(xmlNode* node, const std::string& place) {
    const std::string name = Name(node);
    if (name == "button" || name == "toggleButton")
      return Button(node, place);
    if (name == "separator" || name == "menuSeparator")
      return "<span class=\"separator\"></span>";
    std::string inner;
    if (name == "buttonGroup") {
      for (xmlNode* child : Children(node))
        inner += Control(child, "buttonGroup");
      return "<div class=\"buttonGroup\" data-id=\"" + Escape(Attribute(node, "id")) + "\">" +
             inner + "</div>";
    }
    if (name == "splitButton")
      return SplitButton(node);
    return "<span class=\"missing\" title=\"&lt;" + Escape(name) + "&gt; is not drawn\">" +
           Escape(name) + "</span>";
  }

  // A split button without a button of its own shows its menu's first item on its face; the
  // menu is drawn dropped, as when the user has opened it.
  std::string SplitButton(xmlNode* node) {
    std::string face;
    std::string menu;
    for (xmlNode* child : Children(node)) {
      if (Name(child) != "menu") {
        face = Button(child, "group");
        continue;
      }
      itemSize_ = Attribute(child, "itemSize");
      for (xmlNode* item : Children(child)) {
        if (face.empty() && Name(item) == "button") {
          const std::string label = Label(item);
          face = "<button" + ControlAttributes(item, "large face", label) + ">" +
                 Picture(item, 32) + "<span class=\"label\">" + Escape(label) + "</span></button>";
        }
        menu += Control(item, "menu");
      }
    }
    return "<div class=\"split\" data-id=\"" + Escape(Attribute(node, "id")) + "\">" + face +
           "<span class=\"arrow\">&#9660;</span><div class=\"menu\" role=\"menu\">" + menu +
           "</div></div>";
  }

  std::string Group(xmlNode* node) {
    std::string controls;
    for (xmlNode* child : Children(node))
      controls += Control(child, "group");
    const std::string label = Label(node);
    return "<div class=\"group\" data-id=\"" + Escape(Attribute(node, "id")) +
           "\"><div class=\"controls\">" + controls + "</div><div class=\"name label\">" +
           Escape(label) + "</div></div>";
  }

  std::string Tab(xmlNode* node) {
    std::string groups;
    const bool builtIn = Has(node, "idMso");
    if (builtIn) {
      groups += "<div class=\"group builtin\">the tab's own groups</div>";
    }
    for (xmlNode* child : Children(node))
      groups += Group(child);
    const std::string label = builtIn ? Attribute(node, "idMso") : Label(node);
    return "<section class=\"tab\" data-id=\"" +
           Escape(builtIn ? Attribute(node, "idMso") : Attribute(node, "id")) +
           "\"><h2 class=\"label\">" + Escape(builtIn ? "References" : label) +
           "</h2><div class=\"strip\">" + groups + "</div></section>\n";
  }

  Main2& main2_;
  std::string itemSize_;
};

}  // namespace

std::vector<std::uint8_t> EncodePng(const PortableBitmap& bitmap) {
  std::vector<std::uint8_t> png{0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
  std::vector<std::uint8_t> header(13);
  for (int i = 0; i < 4; ++i) {
    header[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(bitmap.width >> (24 - 8 * i));
    header[static_cast<std::size_t>(4 + i)] =
        static_cast<std::uint8_t>(bitmap.height >> (24 - 8 * i));
  }
  header[8] = 8;  // bits a sample
  header[9] = 2;  // red, green, blue
  PutChunk(png, "IHDR", header);
  std::vector<std::uint8_t> rows;
  const auto width = static_cast<std::size_t>(bitmap.width);
  rows.reserve((width * 3 + 1) * static_cast<std::size_t>(bitmap.height));
  for (std::size_t y = 0; y < static_cast<std::size_t>(bitmap.height); ++y) {
    rows.push_back(0);  // no filter
    for (std::size_t x = 0; x < width; ++x) {
      const std::uint8_t* p = &bitmap.bgra[(y * width + x) * 4];
      rows.insert(rows.end(), {p[2], p[1], p[0]});
    }
  }
  uLongf size = compressBound(static_cast<uLong>(rows.size()));
  std::vector<std::uint8_t> packed(size);
  compress2(packed.data(), &size, rows.data(), static_cast<uLong>(rows.size()), 9);
  packed.resize(size);
  PutChunk(png, "IDAT", packed);
  PutChunk(png, "IEND", {});
  return png;
}

std::string PreviewPage(Main2& main2) {
  const std::string document = ToUtf8(main2.GetRibbonXML());
  xmlDoc* doc = xmlReadMemory(document.data(), static_cast<int>(document.size()), "ribbon.xml",
                              nullptr, XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
  if (doc == nullptr)
    return "";
  std::string page = Painter(main2).Page(xmlDocGetRootElement(doc));
  xmlFreeDoc(doc);
  return page;
}

int WritePreview(std::ostream& page, std::ostream& errors, const PreviewOptions& options) {
  std::string script;
  if (options.sessionFile.empty()) {
    script = "Initialize " + options.productName + "\n";
  } else {
    std::ifstream in(options.sessionFile, std::ios::binary);
    if (!in) {
      errors << "tabforge preview: cannot read '" << options.sessionFile << "'\n";
      return 2;
    }
    std::stringstream text;
    text << in.rdbuf();
    script = text.str();
    // The name given on the command line wins over the session's, as a later rename would.
    if (options.productNameGiven)
      script += "\nproductNameChanged " + options.productName + "\n";
  }
  std::istringstream in(script);
  std::ostringstream transcript;
  std::string html;
  SessionOptions sessionOptions;
  sessionOptions.iconDirectory = options.iconDirectory;
  const int status = ReplaySession(in, transcript, errors, sessionOptions,
                                   [&](Main2& main2) { html = PreviewPage(main2); });
  if (status != 0)
    return status;
  if (html.empty()) {
    errors << "tabforge preview: the document is not well-formed\n";
    return 2;
  }
  page << html;
  return 0;
}

}  // namespace tabforge::cli
