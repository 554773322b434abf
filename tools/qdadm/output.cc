#include "output.h"

#include <cstdio>

namespace qdadm {

std::string JsonString(const std::string &s) {
  std::string out = "\"";
  for (unsigned char c : s) {
    switch (c) {
      case '"': out += "\\\""; break;
      case '\\': out += "\\\\"; break;
      case '\n': out += "\\n"; break;
      case '\r': out += "\\r"; break;
      case '\t': out += "\\t"; break;
      default:
        if (c < 0x20) {
          char buf[8];
          snprintf(buf, sizeof buf, "\\u%04x", c);
          out += buf;
        } else {
          out.push_back(static_cast<char>(c));
        }
    }
  }
  return out + "\"";
}

namespace {

std::string JsonObject(const Pairs &pairs) {
  std::string out = "{";
  for (size_t i = 0; i < pairs.size(); ++i)
    out += (i ? ", " : "") + JsonString(pairs[i].first) + ": " + JsonString(pairs[i].second);
  return out + "}";
}

// A keyword=value line; a value with a line break in it is written with
// \n escapes so that one line stays one pair.
std::string OneLine(const std::string &value) {
  std::string v;
  for (char c : value) {
    if (c == '\n')
      v += "\\n";
    else if (c == '\\')
      v += "\\\\";
    else
      v.push_back(c);
  }
  return v;
}

void Line(const std::string &name, const std::string &value) {
  printf("%s=%s\n", name.c_str(), OneLine(value).c_str());
}

}  // namespace

void Output::Value(const std::string &name, const std::string &value) {
  if (json_)
    printf("%s\n", JsonObject({{name, value}}).c_str());
  else
    Line(name, value);
}

void Output::Fields(const Pairs &fields) {
  if (json_) {
    printf("%s\n", JsonObject(fields).c_str());
    return;
  }
  for (const auto &f : fields) Line(f.first, f.second);
}

void Output::Counts(const Numbers &counts) {
  std::string out = "{";
  for (size_t i = 0; i < counts.size(); ++i) {
    std::string n = std::to_string(counts[i].second);
    if (json_)
      out += (i ? ", " : "") + JsonString(counts[i].first) + ": " + n;
    else
      Line(counts[i].first, n);
  }
  if (json_) printf("%s}\n", out.c_str());
}

void Output::Object(const std::string &alias, const Pairs &attributes, const Pairs &methods) {
  if (json_) {
    printf("{\"alias\": %s, \"attributes\": %s, \"methods\": %s}\n", JsonString(alias).c_str(),
           JsonObject(attributes).c_str(), JsonObject(methods).c_str());
    return;
  }
  Line("alias", alias);
  for (const auto &a : attributes) Line(a.first, a.second);
  for (const auto &m : methods) Line(m.first, m.second);
}

void Output::Objects(const std::vector<ObjectView> &objects) {
  if (json_) {
    std::string out = "[";
    for (size_t i = 0; i < objects.size(); ++i)
      out += (i ? ", {\"alias\": " : "{\"alias\": ") + JsonString(objects[i].alias) +
             ", \"attributes\": " + JsonObject(objects[i].attributes) + ", \"methods\": " +
             JsonObject(objects[i].methods) + "}";
    printf("%s]\n", out.c_str());
    return;
  }
  for (size_t i = 0; i < objects.size(); ++i) {
    if (i > 0) putchar('\n');
    Object(objects[i].alias, objects[i].attributes, objects[i].methods);
  }
}

void Output::Aliases(const std::vector<std::string> &aliases) {
  if (json_) {
    std::string out = "[";
    for (size_t i = 0; i < aliases.size(); ++i) out += (i ? ", " : "") + JsonString(aliases[i]);
    printf("%s]\n", out.c_str());
    return;
  }
  for (const auto &a : aliases) printf("%s\n", a.c_str());
}

void Output::Records(const std::vector<Pairs> &records) {
  if (json_) {
    std::string out = "[";
    for (size_t i = 0; i < records.size(); ++i) out += (i ? ", " : "") + JsonObject(records[i]);
    printf("%s]\n", out.c_str());
    return;
  }
  for (size_t i = 0; i < records.size(); ++i) {
    if (i > 0) putchar('\n');
    Fields(records[i]);
  }
}

void Output::Report(const Pairs &fields, const Lists &lists) {
  if (!json_) {
    Fields(fields);
    for (const auto &l : lists)
      for (const auto &item : l.second) Line(l.first, item);
    return;
  }
  std::string out = JsonObject(fields);
  out.pop_back();
  for (const auto &l : lists) {
    out += (out.size() > 1 ? ", " : "") + JsonString(l.first) + ": [";
    for (size_t i = 0; i < l.second.size(); ++i) out += (i ? ", " : "") + JsonString(l.second[i]);
    out += "]";
  }
  printf("%s}\n", out.c_str());
}

void Output::Steps(const std::vector<Step> &steps) {
  std::string out = "[";
  for (size_t i = 0; i < steps.size(); ++i) {
    const Step &s = steps[i];
    if (json_) {
      std::string rest = JsonObject({{"kind", s.kind}, {"pre", s.pre}, {"post", s.post}, {"value", s.value}});
      out += (i ? ", " : "") + ("{\"step\": " + std::to_string(i + 1) + ", ") + rest.substr(1);
      continue;
    }
    printf("%zu %s pre=%s post=%s %s\n", i + 1, s.kind.c_str(), s.pre.c_str(), s.post.c_str(),
           OneLine(s.value).c_str());
  }
  if (json_) printf("%s]\n", out.c_str());
}

void Output::Tree(const std::vector<TreeRow> &rows) {
  if (!json_) {
    for (const TreeRow &r : rows) {
      printf("%s%s%s\n", std::string(2 * r.depth, ' ').c_str(), r.alias.c_str(),
             r.repeated ? " (repeated above: not followed)" : "");
    }
    return;
  }
  // Rows come depth first, so a row one deeper opens the previous row's
  // "contains" and a shallower one closes the rows it leaves.
  std::string out;
  size_t open = 0;
  for (size_t i = 0; i < rows.size(); ++i) {
    const TreeRow &r = rows[i];
    if (i > 0 && r.depth <= rows[i - 1].depth) {
      for (size_t d = r.depth; d <= rows[i - 1].depth; ++d) out += "]}";
      open -= rows[i - 1].depth - r.depth + 1;
      out += ", ";
    }
    out += "{\"alias\": " + JsonString(r.alias) + (r.repeated ? ", \"repeated\": true" : "") + ", \"contains\": [";
    ++open;
  }
  for (; open > 0; --open) out += "]}";
  printf("%s\n", out.c_str());
}

void Output::Acts(const std::vector<Pairs> &acts) {
  std::string out = "[";
  for (size_t i = 0; i < acts.size(); ++i) {
    if (json_) {
      out += (i ? ", " : "") + ("{\"step\": " + std::to_string(i + 1) + ", ") + JsonObject(acts[i]).substr(1);
      continue;
    }
    printf("%zu", i + 1);
    for (const auto &field : acts[i]) printf(" %s", OneLine(field.second).c_str());
    putchar('\n');
  }
  if (json_) printf("%s]\n", out.c_str());
}

}  // namespace qdadm
