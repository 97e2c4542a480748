# Joins the CSV reports of several Google Benchmark programs into one table: the median of each
# measurement, its spread (standard deviation over the repetitions, in parts of the median; the
# reports' own coefficient comes scaled by the time unit) and its counters.

function unquoted(text) { gsub(/^"|"$/, "", text); return text }

# Splits a CSV line into field[1..]; commas inside quotes stay.
function split_csv(line, field,   count, part) {
  count = 0
  delete field
  while (match(line, /^("([^"]|"")*"|[^,]*)(,|$)/)) {
    part = substr(line, 1, RLENGTH)
    line = substr(line, RLENGTH + 1)
    sub(/,$/, "", part)
    field[++count] = unquoted(part)
    if (line == "") break
  }
  return count
}

FNR == 1 { delete column; heading = 0 }

/^"?name"?,/ {
  columns = split_csv($0, column)
  heading = 1
  next
}

heading {
  split_csv($0, value)
  name = value[1]
  if (name ~ /_median$/) {
    sub(/_median$/, "", name)
    order[++rows] = name
    for (i = 2; i <= columns; ++i) {
      if (column[i] == "real_time") time[name] = value[i]
      else if (column[i] == "time_unit") unit[name] = value[i]
      else if (column[i] == "items_per_second" && value[i] != "")
        extra[name] = extra[name] sprintf("  items/s=%.3g", value[i])
      else if (column[i] == "bytes_per_second" && value[i] != "")
        extra[name] = extra[name] sprintf("  bytes/s=%.3g", value[i])
      else if (column[i] == "label" && value[i] != "") extra[name] = extra[name] "  " value[i]
      else if (column[i] !~ /^(iterations|cpu_time|items_per_second|bytes_per_second|label|error_occurred|error_message)$/ && value[i] != "")
        extra[name] = extra[name] sprintf("  %s=%.4g", column[i], value[i])
    }
  } else if (name ~ /_stddev$/) {
    sub(/_stddev$/, "", name)
    for (i = 2; i <= columns; ++i) if (column[i] == "real_time") spread[name] = value[i]
  }
}

END {
  width = 11
  for (i = 1; i <= rows; ++i) if (length(order[i]) > width) width = length(order[i])
  printf "%-" width "s  %14s  %7s  %s\n", "measurement", "median", "spread", "counters"
  for (i = 1; i <= rows; ++i) {
    name = order[i]
    printf "%-" width "s  %11.1f %-2s  %6.1f%%%s\n", name, time[name], unit[name], 100 * spread[name] / time[name], extra[name]
  }
}
