# The classes of scripts/differential-rpm: reads the module's verdicts (differential-verdicts'
# lines; those of the current policy count), rpm 6.1's (and rpm 4.18's, when the file is there),
# the case list and what was done to each case; prints the summary and writes the details into
# outdir/accepted and outdir/refused, with a list "NUMBER FOLDER" of the cases whose files the
# script copies there (cases.list).
#
#   awk -F'\t' -v module=FILE -v rpm6=FILE -v rpm4=FILE -v cases=FILE -v mutations=FILE
#       -v share=PREFIX -v fixtures=N -v outdir=DIR -f rpm-classes.awk /dev/null

# rpm read safely: a package is signed when rpmkeys exited 0 and at least one signature line says
# OK. An unsigned package, or one whose only signature rpm does not trust, exits 0 all the same.
function rpm_signed(status, lines,    n, parts, i) {
  if (status != 0) return 0
  n = split(lines, parts, "; ")
  for (i = 1; i <= n; i++) {
    # "Header ...", "Package ...", "Legacy ..." (rpm 6.1), "V4 RSA/SHA256 Signature, key ID ..." (4.18)
    if (parts[i] ~ /[Ss]ignature, key (ID|fingerprint).*: OK$/ && parts[i] !~ /^(import failed|error|warning)/) return 1
  }
  return 0
}

# Key IDs, fingerprints, digest values and file names made alike, so that cases of one kind group.
function normal(text) {
  gsub(share "[^ :;,]*", "FILE", text)
  gsub(/\/share\/[^ :;,]*/, "FILE", text)
  # Eight hexadecimal digits or more (written out: mawk knows no {8,}).
  gsub(/[0-9a-fA-F][0-9a-fA-F][0-9a-fA-F][0-9a-fA-F][0-9a-fA-F][0-9a-fA-F][0-9a-fA-F][0-9a-fA-F]+/, "HEX", text)
  gsub(/[0-9]+ bytes/, "N bytes", text)
  return text
}

# What rpm said beyond agreement: its lines that do not end in OK (import failures, BAD, NOKEY,
# NOTTRUSTED, NOTFOUND, errors), made alike and each kept once, with the signatures' versions and
# algorithms left out; "all OK" when every line was OK.
function complaints(lines,    n, parts, i, part, seen, text) {
  n = split(lines, parts, "; ")
  for (i = 1; i <= n; i++) {
    part = parts[i]
    if (part ~ /: OK$/ && part !~ /^(import failed|error|warning)/) continue
    part = normal(part)
    gsub(/OpenPGP [^:;]* signature/, "OpenPGP signature", part)
    gsub(/at time [0-9T:-]*Z/, "at time T", part)
    gsub(/ +/, " ", part)
    if (part in seen) continue
    seen[part] = 1
    text = text (text == "" ? "" : "; ") part
  }
  return text == "" ? "all OK" : substr(text, 1, 160)
}

# What the module gives as its reason: its own detail, else the message, else the checks that did
# not pass.
function reason(number,    text, n, checks, i) {
  text = detail[number] != "" ? detail[number] : message[number]
  if (text == "") {
    n = split(checks_of[number], checks, "|")
    for (i = 1; i <= n; i++) if (checks[i] !~ /\/Ok\//) text = text (text == "" ? "" : " ") checks[i]
  }
  return substr(normal(text), 1, 60)
}

function read_verdicts(file, status, lines,    line, f) {
  while ((getline line < file) > 0) {
    split(line, f, "\t")
    status[f[1]] = f[2]
    lines[f[1]] = f[3]
  }
  close(file)
}

function class_name(m, r) {
  return (m ? "module signed" : "module not") ", " (r ? "rpm signed" : "rpm not")
}

function show_case(number, file) {
  printf "case %d: %s\n", number, what[number] > file
  printf "  package, key: %s\n", files[number] > file
  printf "  module (current): status %s: %s [%s] %s\n", mstatus[number], message[number], detail[number],
    checks_of[number] > file
  printf "  rpm 6.1: status %s: %s\n", r6status[number], r6lines[number] > file
  if (has_rpm4) printf "  rpm 4.18: status %s: %s\n", r4status[number], r4lines[number] > file
}

# Puts case number into the group key of set (accepted or refused).
function add(set, key, number) {
  if (!((set, key) in count)) order[set, ++groups[set]] = key
  count[set, key]++
  members[set]++
  numbers_of[set, key] = numbers_of[set, key] " " number
}

# Prints the groups of set, the largest first, with three examples each; writes their cases (up to
# limit a group, 0: all) to outdir/set/report.txt and lists them for copying in outdir/set/cases.list.
function show_groups(set, limit,    g, h, t, sorted, key, parts, folder, numbers, n, e, file) {
  file = outdir "/" set "/report.txt"
  for (g = 1; g <= groups[set]; g++) sorted[g] = order[set, g]
  for (g = 2; g <= groups[set]; g++) {
    for (h = g; h > 1 && count[set, sorted[h]] > count[set, sorted[h - 1]]; h--) {
      t = sorted[h]; sorted[h] = sorted[h - 1]; sorted[h - 1] = t
    }
  }
  for (g = 1; g <= groups[set]; g++) {
    key = sorted[g]
    folder = sprintf("group-%02d", g)
    n = split(substr(numbers_of[set, key], 2), numbers, " ")
    if (split(key, parts, "\t") > 1) {
      printf "  %6d  %-60s | %s\n", count[set, key], parts[1], parts[2]
    } else {
      printf "  %6d  %s\n", count[set, key], key
    }
    for (e = 1; e <= n && e <= 3; e++) printf "          case %d: %s\n", numbers[e], what[numbers[e]]
    printf "          (%s/%s)\n", set, folder
    printf "%s: %d cases: %s\n", folder, count[set, key], key > file
    for (e = 1; e <= n && (limit == 0 || e <= limit); e++) {
      show_case(numbers[e], file)
      print numbers[e], folder > (outdir "/" set "/cases.list")
    }
    print "" > file
  }
}

BEGIN {
  FS = "\t"
  while ((getline line < cases) > 0) {
    getline m < mutations
    n++
    files[n] = line
    gsub(share, "", files[n])
    what[n] = m
  }
  while ((getline line < module) > 0) {
    split(line, f, "\t")
    if (f[2] != "current") continue
    mstatus[f[1]] = f[3]
    message[f[1]] = f[4]
    detail[f[1]] = f[7]
    checks_of[f[1]] = f[8]
  }
  read_verdicts(rpm6, r6status, r6lines)
  has_rpm4 = (getline line < rpm4) > 0
  close(rpm4)
  if (has_rpm4) read_verdicts(rpm4, r4status, r4lines)

  for (i = 1; i <= n; i++) {
    if (!(i in mstatus) || !(i in r6status)) { missing++; continue }
    kind = i <= fixtures ? "fixture" : "mutated"
    judged[kind]++
    m = mstatus[i] == 0
    r = rpm_signed(r6status[i], r6lines[i])
    classes[class_name(m, r), kind]++
    if (has_rpm4 && (i in r4status)) rpm4_classes[class_name(m, rpm_signed(r4status[i], r4lines[i])), kind]++
    if (m && !r) add("accepted", complaints(r6lines[i]), i)
    if (!m && r) add("refused", reason(i) "\t" complaints(r6lines[i]), i)
  }

  printf "\nCases judged: %d (%d fixture pairs, %d mutated)%s\n", judged["fixture"] + judged["mutated"],
    judged["fixture"], judged["mutated"],
    missing ? ", " missing " without both verdicts" : ""
  printf "\nThe module's \"current\" against rpm 6.1 read safely:\n"
  printf "  %-36s %9s %9s\n", "", "fixture", "mutated"
  split("module signed, rpm signed|module signed, rpm not|module not, rpm signed|module not, rpm not", names, "|")
  for (c = 1; c <= 4; c++) {
    printf "  %-36s %9d %9d%s\n", names[c], classes[names[c], "fixture"], classes[names[c], "mutated"],
      c == 2 ? "   (must be 0)" : ""
  }
  if (has_rpm4) {
    printf "\nThe same against rpm 4.18 (host) read safely:\n"
    for (c = 1; c <= 4; c++) {
      printf "  %-36s %9d %9d\n", names[c], rpm4_classes[names[c], "fixture"], rpm4_classes[names[c], "mutated"]
    }
  }

  printf "\nModule signed, rpm 6.1 not: %d cases in %d groups (rpm's lines that are not OK), every case in accepted/\n",
    members["accepted"], groups["accepted"]
  show_groups("accepted", 0)
  printf "\nModule refused, rpm 6.1 signed: %d cases in %d groups (module's reason | rpm's lines that are not OK),\n",
    members["refused"], groups["refused"]
  printf "3 examples a group in refused/\n"
  show_groups("refused", 3)
}
