#include "tools/custom_ui_check.h"

#include <libxml/parser.h>
#include <libxml/tree.h>
#include <libxml/xmlstring.h>

#include <algorithm>
#include <map>
#include <memory>
#include <set>
#include <sstream>

namespace tabforge::cli {
namespace {

constexpr std::string_view kNamespace = "http://schemas.microsoft.com/office/2006/01/customui";

// --- The language, as our own compact table ------------------------------------------------------
//
// Attributes are written NAME:TYPE, a trailing '!' makes one required, @SET pulls in a shared set,
// and -NAME takes one away again. Children are particles separated by " ; ", each "MIN MAX" and
// the elements it takes as NAME:KIND or @SET; particles come in this order unless the kind takes
// them in any order.

// Types: uid (a unique name), nc (a name), qid (a name with an optional prefix), cb (a callback),
// str and uri (1 to 1024 characters), long (1 to 4096), key (a keytip, 1 to 3), size and box
// (enumerations), bool, len and count (1 to 1024), px (1 to 4096).
const std::map<std::string_view, std::string_view> kAttributeSets{
    {"ids", "id:uid idQ:qid idMso:nc tag:str"},
    {"position", "insertAfterMso:nc insertBeforeMso:nc insertAfterQ:qid insertBeforeQ:qid"},
    {"control",
     "image:uri imageMso:nc getImage:cb screentip:str getScreentip:cb supertip:str getSupertip:cb "
     "enabled:bool getEnabled:cb label:str getLabel:cb @position visible:bool getVisible:cb "
     "keytip:key getKeytip:cb showLabel:bool getShowLabel:cb showImage:bool getShowImage:cb"},
    {"action", "onAction:cb description:long getDescription:cb"},
    {"size", "size:size getSize:cb"},
    {"dropDown",
     "onAction:cb showItemImage:bool getItemCount:cb getItemLabel:cb getItemScreentip:cb "
     "getItemSupertip:cb getItemImage:cb getItemID:cb sizeString:str getSelectedItemID:cb "
     "getSelectedItemIndex:cb showItemLabel:bool"},
    {"gallery",
     "description:long getDescription:cb invalidateContentOnDrop:bool columns:count rows:count "
     "itemWidth:px itemHeight:px getItemWidth:cb getItemHeight:cb"},
    {"editBox", "maxLength:len getText:cb onChange:cb sizeString:str"},
    {"splitButton",
     "@control @ids -label -getLabel -screentip -getScreentip -supertip -getSupertip -image "
     "-imageMso -getImage -showImage -getShowImage"},
    {"container", "id:uid idQ:qid visible:bool getVisible:cb @position"},
};

const std::map<std::string_view, std::string_view> kChildSets{
    {"controls",
     "control:ControlClone labelControl:LabelControl button:Button toggleButton:ToggleButton "
     "checkBox:CheckBox editBox:EditBox comboBox:ComboBox dropDown:DropDown gallery:Gallery "
     "menu:Menu dynamicMenu:DynamicMenu splitButton:SplitButton box:Box buttonGroup:ButtonGroup"},
    {"menuItems",
     "control:ControlCloneRegular button:ButtonRegular checkBox:CheckBox gallery:GalleryRegular "
     "toggleButton:ToggleButtonRegular menuSeparator:MenuSeparator"},
    {"titledMenuItems",
     "@menuItems splitButton:SplitButtonWithTitle menu:MenuWithTitle "
     "dynamicMenu:DynamicMenuRegular"},
    {"listItems", "0 1000 item:Item ; 0 16 button:ButtonRegular"},
};

struct KindRow {
  std::string_view name;
  std::string_view attributes;
  std::string_view children;
  bool anyOrder = false;
  // The children may be left out all together even where one particle needs one (a split
  // button: nothing, or a menu, or a button and a menu).
  bool allOrNothing = false;
};

const KindRow kKinds[] = {
    {"CustomUI", "onLoad:cb loadImage:cb", "0 1 commands:Commands ; 0 1 ribbon:Ribbon"},
    {"Commands", "", "1 5000 command:Command"},
    {"Command", "onAction:cb enabled:bool getEnabled:cb idMso:nc", ""},
    {"Ribbon", "startFromScratch:bool",
     "0 1 officeMenu:OfficeMenu ; 0 1 qat:Qat ; 0 1 tabs:Tabs ; 0 1 contextualTabs:ContextualTabs",
     true},
    {"OfficeMenu", "", "0 1000 @titledMenuItems"},
    {"Qat", "", "0 1 sharedControls:QatItems ; 0 1 documentControls:QatItems"},
    {"QatItems", "", "0 1000 control:ControlCloneQat button:ButtonRegular separator:Separator"},
    {"ControlCloneQat", "@control id:nc idQ:qid idMso:nc description:long getDescription:cb @size",
     ""},
    {"Tabs", "", "1 100 tab:Tab"},
    {"ContextualTabs", "", "1 100 tabSet:TabSet"},
    {"TabSet", "idMso:nc! visible:bool getVisible:cb", "0 50 tab:Tab"},
    {"Tab",
     "@ids label:str getLabel:cb @position visible:bool getVisible:cb keytip:key getKeytip:cb",
     "0 100 group:Group"},
    {"Group",
     "@ids label:str getLabel:cb image:uri imageMso:nc getImage:cb @position screentip:str "
     "getScreentip:cb supertip:str getSupertip:cb visible:bool getVisible:cb keytip:key "
     "getKeytip:cb",
     "0 1000 @controls separator:Separator ; 0 1 dialogBoxLauncher:DialogLauncher"},
    {"Box", "@container boxStyle:box", "0 1000 @controls"},
    {"ButtonGroup", "@container",
     "0 1000 control:ControlCloneRegular button:ButtonRegular toggleButton:ToggleButtonRegular "
     "gallery:GalleryRegular menu:MenuRegular dynamicMenu:DynamicMenuRegular "
     "splitButton:SplitButtonRegular"},
    {"Separator", "@container", ""},
    {"MenuSeparator", "id:uid idQ:qid @position title:str getTitle:cb", ""},
    {"DialogLauncher", "", "1 1 button:ButtonRegular"},
    {"ControlClone", "@control @ids @action @size -id -onAction", ""},
    {"ControlCloneRegular", "@control @ids -id", ""},
    {"LabelControl",
     "@control @ids -image -imageMso -getImage -keytip -getKeytip -showImage -getShowImage", ""},
    {"ButtonRegular", "@control @ids @action", ""},
    {"Button", "@control @ids @action @size", ""},
    {"VisibleButton", "@control @ids @action -visible -getVisible", ""},
    {"ToggleButtonRegular", "@control @ids @action getPressed:cb", ""},
    {"ToggleButton", "@control @ids @action getPressed:cb @size", ""},
    {"VisibleToggleButton", "@control @ids @action getPressed:cb -visible -getVisible", ""},
    {"CheckBox",
     "@control @ids @action getPressed:cb -image -imageMso -getImage -showImage -getShowImage "
     "-showLabel -getShowLabel",
     ""},
    {"EditBox", "@control @ids @editBox", ""},
    {"ComboBox", "@control @ids @editBox invalidateContentOnDrop:bool", "0 1000 item:Item"},
    {"Item", "id:uid label:str image:uri imageMso:nc screentip:str supertip:str", ""},
    {"DropDown", "@control @ids @dropDown", "@listItems"},
    {"GalleryRegular", "@control @ids @dropDown @gallery", "@listItems"},
    {"Gallery", "@control @ids @dropDown @gallery @size", "@listItems"},
    {"MenuRegular", "@control @ids itemSize:size description:long getDescription:cb",
     "0 1000 @menuItems splitButton:SplitButtonRegular menu:MenuRegular "
     "dynamicMenu:DynamicMenuRegular"},
    {"Menu", "@control @ids itemSize:size description:long getDescription:cb @size",
     "0 1000 @menuItems splitButton:SplitButtonRegular menu:MenuRegular "
     "dynamicMenu:DynamicMenuRegular"},
    {"MenuWithTitle", "@control @ids itemSize:size title:str getTitle:cb",
     "0 1000 @titledMenuItems"},
    {"DynamicMenuRegular",
     "@control @ids description:long getDescription:cb getContent:cb! "
     "invalidateContentOnDrop:bool",
     ""},
    {"DynamicMenu",
     "@control @ids description:long getDescription:cb getContent:cb! "
     "invalidateContentOnDrop:bool @size",
     ""},
    {"SplitButtonRegular", "@splitButton",
     "0 1 button:VisibleButton toggleButton:VisibleToggleButton ; 1 1 menu:MenuRegular", false,
     true},
    {"SplitButtonWithTitle", "@splitButton",
     "0 1 button:VisibleButton toggleButton:VisibleToggleButton ; 1 1 menu:MenuWithTitle", false,
     true},
    {"SplitButton", "@splitButton @size",
     "0 1 button:VisibleButton toggleButton:VisibleToggleButton ; 1 1 menu:MenuRegular", false,
     true},
};

// Attributes of which at most one may stand on an element.
const std::vector<std::vector<std::string_view>> kExclusive{
    {"id", "idMso", "idQ"},
    {"label", "getLabel"},
    {"image", "imageMso", "getImage"},
    {"insertAfterMso", "insertBeforeMso", "insertAfterQ", "insertBeforeQ"},
    {"enabled", "getEnabled"},
    {"visible", "getVisible"},
    {"keytip", "getKeytip"},
    {"screentip", "getScreentip"},
    {"supertip", "getSupertip"},
    {"description", "getDescription"},
    {"size", "getSize"},
    {"showLabel", "getShowLabel"},
    {"showImage", "getShowImage"},
    {"title", "getTitle"},
};

// --- The table, read once ------------------------------------------------------------------------

struct AttributeRule {
  std::string type;
  bool required = false;
};

struct Particle {
  int min = 0;
  int max = 0;
  std::map<std::string, std::string, std::less<>> elements;  // element name -> kind
};

struct Kind {
  std::map<std::string, AttributeRule, std::less<>> attributes;
  std::vector<Particle> particles;
  bool anyOrder = false;
  bool allOrNothing = false;
};

std::vector<std::string> Words(std::string_view text) {
  std::vector<std::string> words;
  std::istringstream in{std::string(text)};
  for (std::string word; in >> word;)
    words.push_back(word);
  return words;
}

void AddAttributes(std::string_view text, std::map<std::string, AttributeRule, std::less<>>& out) {
  for (const auto& word : Words(text)) {
    if (word[0] == '@') {
      AddAttributes(kAttributeSets.at(word.substr(1)), out);
    } else if (word[0] == '-') {
      out.erase(word.substr(1));
    } else {
      const auto colon = word.find(':');
      AttributeRule rule{word.substr(colon + 1), false};
      if (rule.type.back() == '!') {
        rule.type.pop_back();
        rule.required = true;
      }
      out[word.substr(0, colon)] = rule;
    }
  }
}

void AddElements(std::string_view text, Particle& out) {
  for (const auto& word : Words(text)) {
    if (word[0] == '@') {
      AddElements(kChildSets.at(word.substr(1)), out);
    } else {
      const auto colon = word.find(':');
      out.elements[word.substr(0, colon)] = word.substr(colon + 1);
    }
  }
}

std::vector<Particle> ReadParticles(std::string_view text) {
  if (!text.empty() && text[0] == '@')
    text = kChildSets.at(text.substr(1));
  std::vector<Particle> particles;
  while (!text.empty()) {
    const auto end = text.find(" ; ");
    std::istringstream in{std::string(text.substr(0, end))};
    Particle particle;
    in >> particle.min >> particle.max;
    std::string rest;
    std::getline(in, rest);
    AddElements(rest, particle);
    particles.push_back(std::move(particle));
    text = end == std::string_view::npos ? std::string_view() : text.substr(end + 3);
  }
  return particles;
}

const std::map<std::string, Kind, std::less<>>& Language() {
  static const auto language = [] {
    std::map<std::string, Kind, std::less<>> kinds;
    for (const auto& row : kKinds) {
      Kind& kind = kinds[std::string(row.name)];
      AddAttributes(row.attributes, kind.attributes);
      kind.particles = ReadParticles(row.children);
      kind.anyOrder = row.anyOrder;
      kind.allOrNothing = row.allOrNothing;
    }
    return kinds;
  }();
  return language;
}

// --- Where things stand in the text --------------------------------------------------------------

// libxml2 keeps only the line of an element, so the start tags are found again in the text: the
// k-th start tag is the k-th element in document order.
class Positions {
 public:
  explicit Positions(std::string_view text) : text_(text) {
    lineStarts_.push_back(0);
    for (std::size_t i = 0; i < text.size(); ++i) {
      if (text[i] == '\n')
        lineStarts_.push_back(i + 1);
    }
    for (std::size_t i = text.find('<'); i != std::string_view::npos; i = text.find('<', i + 1)) {
      const auto skipTo = [&](std::string_view end) {
        const auto at = text.find(end, i);
        return at == std::string_view::npos ? text.size() : at + end.size() - 1;
      };
      const std::string_view rest = text.substr(i);
      if (rest.starts_with("<!--")) {
        i = skipTo("-->");
      } else if (rest.starts_with("<![CDATA[")) {
        i = skipTo("]]>");
      } else if (rest.starts_with("<?")) {
        i = skipTo("?>");
      } else if (rest.starts_with("<!")) {
        i = skipTo(rest.find('[') < rest.find('>') ? "]>" : ">");
      } else if (rest.starts_with("</")) {
        i = skipTo(">");
      } else {
        tags_.push_back(i);
        i = TagEnd(i);
      }
    }
  }

  std::size_t Tag(std::size_t element) const { return element < tags_.size() ? tags_[element] : 0; }

  // The offset of attribute `qualifiedName` in the start tag at `tag`, or the tag's.
  std::size_t Attribute(std::size_t tag, std::string_view qualifiedName) const {
    std::size_t i = tag + 1;
    const std::size_t end = TagEnd(tag);
    while (i < end && !IsBlank(text_[i]))
      ++i;
    while (i < end) {
      while (i < end && IsBlank(text_[i]))
        ++i;
      const std::size_t nameStart = i;
      while (i < end && text_[i] != '=' && !IsBlank(text_[i]))
        ++i;
      if (text_.substr(nameStart, i - nameStart) == qualifiedName)
        return nameStart;
      i = text_.find_first_of("\"'", i);
      if (i >= end)
        break;
      i = text_.find(text_[i], i + 1) + 1;
    }
    return tag;
  }

  std::pair<int, int> LineColumn(std::size_t offset) const {
    auto after = std::upper_bound(lineStarts_.begin(), lineStarts_.end(), offset);
    const std::size_t start = *(after - 1);
    return {static_cast<int>(after - lineStarts_.begin()), static_cast<int>(offset - start + 1)};
  }

 private:
  static bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; }

  std::size_t TagEnd(std::size_t i) const {
    char quote = 0;
    for (++i; i < text_.size(); ++i) {
      const char c = text_[i];
      if (quote != 0) {
        if (c == quote)
          quote = 0;
      } else if (c == '"' || c == '\'') {
        quote = c;
      } else if (c == '>') {
        return i;
      }
    }
    return text_.size();
  }

  std::string_view text_;
  std::vector<std::size_t> lineStarts_;
  std::vector<std::size_t> tags_;
};

// --- Values
// ----------------------------------------------------------------------------------------

std::string Collapse(std::string_view value) {
  std::string out;
  bool blank = false;
  for (char c : value) {
    if (c == ' ' || c == '\t' || c == '\r' || c == '\n') {
      blank = !out.empty();
    } else {
      if (blank)
        out += ' ';
      blank = false;
      out += c;
    }
  }
  return out;
}

long Characters(const std::string& value) {
  return xmlUTF8Strlen(reinterpret_cast<const xmlChar*>(value.c_str()));
}

std::string Length(long min, long max) {
  return "of " + std::to_string(min) + " to " + std::to_string(max) + " characters";
}

// Empty when `value` is of `type`, or else the rule it breaks. `node` resolves a name's prefix.
std::string ValueRule(const std::string& type, const std::string& raw, xmlNode* node) {
  const auto xml = [](const std::string& s) { return reinterpret_cast<const xmlChar*>(s.c_str()); };
  const auto lengthRule = [](const std::string& v, long min, long max) {
    const long n = Characters(v);
    return n < min || n > max ? "must be a text " + Length(min, max) : std::string();
  };
  if (type == "str" || type == "uri" || type == "cb")
    return lengthRule(raw, 1, 1024);
  if (type == "long")
    return lengthRule(raw, 1, 4096);
  if (type == "size")
    return raw == "normal" || raw == "large" ? "" : "must be normal or large";
  if (type == "box")
    return raw == "horizontal" || raw == "vertical" ? "" : "must be horizontal or vertical";
  const std::string value = Collapse(raw);
  if (type == "key")
    return lengthRule(value, 1, 3);
  if (type == "bool") {
    return value == "true" || value == "false" || value == "1" || value == "0"
               ? ""
               : "must be true, false, 1 or 0";
  }
  if (type == "uid" || type == "nc") {
    if (xmlValidateNCName(xml(value), 0) != 0)
      return "must be a name (a letter or '_', then letters, digits, '.', '-' or '_')";
    return lengthRule(value, 1, 1024);
  }
  if (type == "qid") {
    if (xmlValidateQName(xml(value), 0) != 0)
      return "must be a name with an optional 'prefix:'";
    if (const auto colon = value.find(':'); colon != std::string::npos) {
      const std::string prefix = value.substr(0, colon);
      if (xmlSearchNs(node->doc, node, xml(prefix)) == nullptr)
        return "uses the undeclared prefix '" + prefix + "'";
    }
    return lengthRule(value, 1, 1024);
  }
  const long max = type == "px" ? 4096 : 1024;
  std::string digits = value;
  if (!digits.empty() && digits[0] == '+')
    digits.erase(0, 1);
  const std::string rule = "must be a whole number from 1 to " + std::to_string(max);
  if (digits.empty() || digits.find_first_not_of("0123456789") != std::string::npos)
    return rule;
  const auto first = digits.find_first_not_of('0');
  if (first == std::string::npos || digits.size() - first > 5 || std::stol(digits) > max)
    return rule;
  return "";
}

// --- The walk ------------------------------------------------------------------------------------

class Checker {
 public:
  Checker(std::string_view text, std::vector<Finding>& findings)
      : positions_(text), findings_(findings) {}

  void CheckRoot(xmlNode* root) {
    if (!InNamespace(root, 0))
      return;
    if (Name(root) != "customUI") {
      Report(positions_.Tag(0), Finding::Kind::kElement,
             "<" + Name(root) + ">: the document's root element must be <customUI>");
      return;
    }
    CheckElement(root, Language().at("CustomUI"));
  }

 private:
  static std::string Name(const xmlNode* node) { return reinterpret_cast<const char*>(node->name); }

  void Report(std::size_t offset, Finding::Kind kind, std::string message) {
    const auto [line, column] = positions_.LineColumn(offset);
    findings_.push_back({line, column, kind, std::move(message)});
  }

  bool InNamespace(xmlNode* node, std::size_t tag) {
    const char* uri = node->ns != nullptr ? reinterpret_cast<const char*>(node->ns->href) : "";
    if (uri == kNamespace)
      return true;
    // Appended piece by piece: GCC 12 at -O3 sees an overlapping copy in "<" + a string.
    std::string message = "<";
    message.append(Name(node)).append(">: the element is in the namespace \"").append(uri);
    message.append("\", not in \"").append(kNamespace).append("\"");
    Report(positions_.Tag(tag), Finding::Kind::kNamespace, std::move(message));
    return false;
  }

  void CheckElement(xmlNode* node, const Kind& kind) {
    const std::size_t tag = positions_.Tag(element_++);
    const std::string name = Name(node);
    CheckAttributes(node, tag, name, kind);
    CheckChildren(node, tag, name, kind);
  }

  void CheckAttributes(xmlNode* node, std::size_t tag, const std::string& name, const Kind& kind) {
    std::set<std::string, std::less<>> present;
    for (xmlAttr* a = node->properties; a != nullptr; a = a->next) {
      const std::string attribute = reinterpret_cast<const char*>(a->name);
      std::string qualified = attribute;
      if (a->ns != nullptr && a->ns->prefix != nullptr)
        qualified = reinterpret_cast<const char*>(a->ns->prefix) + (":" + attribute);
      const std::size_t at = positions_.Attribute(tag, qualified);
      const auto rule = kind.attributes.find(attribute);
      if (a->ns != nullptr || rule == kind.attributes.end()) {
        Report(
            at, Finding::Kind::kAttribute,
            "<" + name + "> " + qualified + ": the attribute may not stand on <" + name + "> here");
        continue;
      }
      present.insert(attribute);
      xmlChar* raw = xmlNodeListGetString(node->doc, a->children, 1);
      const std::string value = raw != nullptr ? reinterpret_cast<const char*>(raw) : "";
      xmlFree(raw);
      if (const std::string broken = ValueRule(rule->second.type, value, node); !broken.empty()) {
        Report(at, Finding::Kind::kValue,
               "<" + name + "> " + attribute + "=\"" + Excerpt(value) + "\": the value " + broken);
      } else if (rule->second.type == "uid") {
        const std::string id = Collapse(value);
        const auto [first, inserted] = ids_.emplace(id, at);
        if (!inserted) {
          const auto [line, column] = positions_.LineColumn(first->second);
          Report(at, Finding::Kind::kRepeatedId,
                 "<" + name + "> " + attribute + "=\"" + Excerpt(id) +
                     "\": the id repeats the one at " + std::to_string(line) + ":" +
                     std::to_string(column) + "; ids must be unique");
        }
      }
    }
    for (const auto& [attribute, rule] : kind.attributes) {
      if (rule.required && !present.contains(attribute)) {
        Report(tag, Finding::Kind::kAttribute,
               "<" + name + "> " + attribute + ": the attribute is required on <" + name + ">");
      }
    }
    for (const auto& group : kExclusive) {
      std::vector<std::string_view> standing;
      for (auto attribute : group) {
        if (present.contains(attribute))
          standing.push_back(attribute);
      }
      if (standing.size() > 1) {
        std::string names;
        for (auto s : standing)
          names += (names.empty() ? "" : " and ") + std::string(s);
        Report(positions_.Attribute(tag, standing[1]), Finding::Kind::kExclusive,
               "<" + name + "> " + names + ": at most one of them may stand on an element");
      }
    }
  }

  void CheckChildren(xmlNode* node, std::size_t tag, const std::string& name, const Kind& kind) {
    std::vector<int> counts(kind.particles.size());
    std::size_t current = 0;
    bool any = false;
    for (xmlNode* child = node->children; child != nullptr; child = child->next) {
      if (child->type == XML_TEXT_NODE || child->type == XML_CDATA_SECTION_NODE) {
        if (!Collapse(reinterpret_cast<const char*>(child->content)).empty()) {
          Report(tag, Finding::Kind::kElement, "<" + name + ">: the element may not hold text");
        }
        continue;
      }
      if (child->type != XML_ELEMENT_NODE)
        continue;
      any = true;
      const std::size_t childTag = positions_.Tag(element_);
      if (!InNamespace(child, element_)) {
        SkipSubtree(child);
        continue;
      }
      const std::string childName = Name(child);
      std::size_t found = kind.particles.size();
      for (std::size_t p = kind.anyOrder ? 0 : current; p < kind.particles.size(); ++p) {
        if (kind.particles[p].elements.contains(childName)) {
          found = p;
          break;
        }
      }
      if (found == kind.particles.size()) {
        bool earlier = false;
        for (std::size_t p = 0; p < current; ++p)
          earlier = earlier || kind.particles[p].elements.contains(childName);
        Report(childTag, Finding::Kind::kElement,
               "<" + childName + ">: the element may not stand " +
                   (earlier ? "after the elements before it in" : "inside") + " <" + name + ">");
        SkipSubtree(child);
        continue;
      }
      const Particle& particle = kind.particles[found];
      current = kind.anyOrder ? 0 : found;
      if (++counts[found] > particle.max) {
        Report(childTag, Finding::Kind::kElement,
               "<" + childName + ">: <" + name + "> may hold at most " +
                   std::to_string(particle.max) + " of it");
      }
      CheckElement(child, Language().at(particle.elements.find(childName)->second));
    }
    if (kind.allOrNothing && !any)
      return;
    for (std::size_t p = 0; p < kind.particles.size(); ++p) {
      const Particle& particle = kind.particles[p];
      if (counts[p] < particle.min) {
        std::string names;
        for (const auto& [element, unused] : particle.elements)
          names += (names.empty() ? "<" : " or <") + element + ">";
        Report(tag, Finding::Kind::kElement,
               "<" + name + ">: the element needs at least " + std::to_string(particle.min) + " " +
                   names);
      }
    }
  }

  // Keeps the count of start tags right past an element that is not checked.
  void SkipSubtree(xmlNode* node) {
    ++element_;
    for (xmlNode* child = node->children; child != nullptr; child = child->next) {
      if (child->type == XML_ELEMENT_NODE)
        SkipSubtree(child);
    }
  }

  static std::string Excerpt(const std::string& value) {
    return value.size() <= 40
               ? value
               : value.substr(0, 32) + "... (" + std::to_string(Characters(value)) + " characters)";
  }

  Positions positions_;
  std::vector<Finding>& findings_;
  std::size_t element_ = 0;
  std::map<std::string, std::size_t> ids_;
};

}  // namespace

std::vector<Finding> CheckCustomUi(std::string_view document) {
  std::vector<Finding> findings;
  std::unique_ptr<xmlParserCtxt, decltype(&xmlFreeParserCtxt)> context(xmlNewParserCtxt(),
                                                                       &xmlFreeParserCtxt);
  xmlDoc* doc = xmlCtxtReadMemory(context.get(), document.data(), static_cast<int>(document.size()),
                                  "custom-ui.xml", nullptr,
                                  XML_PARSE_NONET | XML_PARSE_NOERROR | XML_PARSE_NOWARNING);
  if (doc == nullptr || !context->wellFormed) {
    const xmlError* error = xmlCtxtGetLastError(context.get());
    std::string message = error != nullptr && error->message != nullptr ? error->message : "";
    while (!message.empty() && (message.back() == '\n' || message.back() == ' '))
      message.pop_back();
    findings.push_back({error != nullptr ? error->line : 1, error != nullptr ? error->int2 : 1,
                        Finding::Kind::kNotWellFormed,
                        "the document is not well-formed: " + message});
    xmlFreeDoc(doc);
    return findings;
  }
  Checker(document, findings).CheckRoot(xmlDocGetRootElement(doc));
  xmlFreeDoc(doc);
  return findings;
}

std::string FormatFinding(const Finding& finding) {
  return std::to_string(finding.line) + ":" + std::to_string(finding.column) + ": " +
         finding.message;
}

}  // namespace tabforge::cli
