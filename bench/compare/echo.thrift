namespace cpp echo_thrift

service Echo {
  binary post(1: binary body),
  oneway void notify(1: binary body)
}
